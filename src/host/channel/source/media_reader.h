// MediaReader: reads and decodes one source, a file or any URL that FFmpeg opens.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/source/media_decoder.h"
#include "host/channel/source/media_info.h"
#include "host/channel/source/packet_source.h"
#include "host/channel/source/source_connection.h"
#include "host/channel/source/track_selector.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/mutex.h"

namespace host {

// A source may continue to send what cannot be decoded: another service, damaged beyond use, or
// audio only. Expired says so once it has been read for the limit without a frame, which is at
// least some frames' time, for slow sources. Only time spent reading counts: a reader that waits
// for free space in its queue reads nothing. Owned and called by one reader.
class VideoWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // limit: without a frame; frameTime: between two frames of the source.
  VideoWatch(Clock::duration limit, Clock::duration frameTime)
      : limit_(std::max(limit, kPictures * std::min(frameTime, kMaxFrameTime))) {}

  void BeginReading(Clock::time_point now) {
    latestFrame_ = left_ ? latestFrame_ + (now - leftAt_) : now;
    left_ = false;
  }
  void EndReading(Clock::time_point now) {
    leftAt_ = now;
    left_ = true;
  }
  void Picture(Clock::time_point now) { latestFrame_ = now; }
  // extra: how much longer than the limit there is a reason to wait.
  bool Expired(Clock::time_point now, Clock::duration extra = {}) const {
    return now - latestFrame_ >= limit_ + extra;
  }

 private:
  static constexpr int kPictures = 4;
  // A stream may announce any frame rate: a slower one ends no watch.
  static constexpr Clock::duration kMaxFrameTime = std::chrono::seconds(10);

  const Clock::duration limit_;
  Clock::time_point latestFrame_;
  Clock::time_point leftAt_;
  bool left_ = false;  // between two readings; at first there was none to leave
};

// Gives the best video and the wanted audio of a source, item by item, in the order of the source:
// decoded frames, compressed audio packets, and after each packet its decoded samples. All times
// are on one clock that starts near 0 and continues through wraps, jumps and repeats.
//
//   PacketSource --packets--> TrackSelector ----packets of the tracks----> MediaDecoder --> items
//   opened, read, limits      chooses streams, detects new ones            timestamps, decoders
//
// The packets come from a MediaInput of its own or, where other readers have the same source, from
// a SharedInput.
//
// Owned by its channel. Open and Read block, up to the limits of the settings, and belong to one
// thread; Cancel may be called by any thread at any time, also during Open, and makes the blocking
// call end within some milliseconds. A failed reader is not used again; reopening makes a new one.
class MediaReader {
 public:
  using Settings = MediaSettings;

  explicit MediaReader(Settings settings);
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // Throws MediaError. A source with only one of video and audio opens, and info() has the reason
  // for the missing one.
  void Open();
  // The next item; EndOfMedia again and again at the end. Throws MediaError, after which the reader
  // is of no more use, but when canGoOn().
  MediaItem Read();
  // After a failure of Read: nothing came for the read limit, but there is no connection that could
  // have broken, and a sender that returns is received sooner by reading on than by opening again.
  bool canGoOn() const { return input_ && input_->canGoOn(); }
  void Cancel();

  // What follows is valid after Open. A replacement of a stream changes the first two, and the
  // service may be renamed.
  const MediaInfo& info() const { return tracks_->info(); }
  // Of the chosen audio stream, as the container announces it; null without audio.
  const AVCodecParameters* audioParameters() const { return tracks_->audioParameters(); }
  // Options of the settings that neither the protocol nor the container knows.
  const std::vector<std::string>& unknownOptions() const { return input_->unknownOptions(); }
  // Packets that a decoder found damaged and skipped.
  std::uint64_t damagedPackets() const { return decoder_->damagedPackets(); }
  // How much of the video is decoded from now on.
  void SetStep(DecodeStep step) { decoder_->SetStep(step); }
  // See MediaDecoder.
  void TakeTurns(MediaDecoder::InTurn inTurn) { decoder_->TakeTurns(std::move(inTurn)); }
  // Frames that were decoded since the last call, and how long it was waited for packets.
  int TakeFrames() { return decoder_->TakeFrames(); }
  std::chrono::nanoseconds TakeWaited() { return std::exchange(waited_, {}); }
  // What lies between the times of the items of that kind and the timestamps of the source, since
  // these jumped last; when those begin, and after how long they come back (0: never).
  Time clockOffset(TrackKind kind) const { return decoder_->clockOffset(kind); }
  Time origin() const { return decoder_->origin(); }
  Time wrapPeriod() const { return decoder_->wrapPeriod(); }
  // Before the first Read: what comes begins near that timestamp, where the source can be sought
  // in.
  void SkipTo(Time timestamp) { input_->SkipTo(timestamp); }
  // See PacketSource. At any time; nothing before the source is open.
  SourceCounts counts() const { return input_ ? input_->counts() : SourceCounts(); }
  // How often another stream has replaced one that ended, as when a service changes its codec, or
  // the one that was chosen has returned.
  std::uint64_t replacements() const { return tracks_->replacements(); }
  // How often info().serviceName has changed since the source was opened.
  std::uint64_t renames() const { return tracks_->renames(); }
  // How often the source began again.
  std::uint64_t repeats() const { return repeats_; }
  // How often another demuxer took over in the midst of an endless source.
  std::uint64_t exchanges() const { return input_->exchanges(); }

 private:
  // False when none has come.
  bool ReadPacket();
  void FinishRepetition();

  const Settings settings_;
  ffmpeg::IoDeadline opening_;  // of another thread that opens the source
  os::Mutex lock_;
  // Set under the lock, and otherwise the reading thread's. What follows exists with it.
  std::unique_ptr<PacketSource> input_;
  std::optional<MediaDecoder> decoder_;
  std::optional<TrackSelector> tracks_;
  std::optional<VideoWatch> watch_;  // of a live source with video
  std::chrono::nanoseconds waited_{};
  bool ended_ = false;
  std::uint64_t repeats_ = 0;
};

}  // namespace host
