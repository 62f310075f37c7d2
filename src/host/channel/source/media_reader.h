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

// A source may go on sending what cannot be decoded: another service, unusable data, or audio only.
// Expired is true once it has been read for the limit without a frame; the limit is at least the
// duration of some frames, for slow sources. Only time spent reading counts, not the time that the
// reader waits for free space in its queue. Owned and called by one reader.
class VideoWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // limit: the longest time without a frame; frameTime: between two frames of the source.
  VideoWatch(Clock::duration limit, Clock::duration frameTime)
      : limit_(std::max(limit, kMinFrames * std::min(frameTime, kMaxFrameTime))) {}

  void BeginReading(Clock::time_point now) {
    latestFrame_ = left_ ? latestFrame_ + (now - leftAt_) : now;
    left_ = false;
  }
  void EndReading(Clock::time_point now) {
    leftAt_ = now;
    left_ = true;
  }
  void OnFrame(Clock::time_point now) { latestFrame_ = now; }
  // extra: is added to the limit.
  bool Expired(Clock::time_point now, Clock::duration extra = {}) const {
    return now - latestFrame_ >= limit_ + extra;
  }

 private:
  static constexpr int kMinFrames = 4;
  // A stream may announce any frame rate; longer frames do not extend the limit further.
  static constexpr Clock::duration kMaxFrameTime = std::chrono::seconds(10);

  const Clock::duration limit_;
  Clock::time_point latestFrame_;
  Clock::time_point leftAt_;
  bool left_ = false;  // between EndReading and BeginReading
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
  // The next item; EndOfMedia repeatedly at the end. Throws MediaError, after which the reader
  // cannot be used further, unless canGoOn().
  MediaItem Read();
  // After a failure of Read: nothing arrived within the read limit, but there is no connection that
  // could have broken, and a sender that returns is received sooner by reading on than by opening
  // the source again.
  bool canGoOn() const { return input_ && input_->canGoOn(); }
  void Cancel();

  // The following are valid after Open. A replacement of a stream changes info and audioParameters;
  // a new name of the service changes info.
  const MediaInfo& info() const { return tracks_->info(); }
  // Of the chosen audio stream, as the container announces them; null without audio.
  const AVCodecParameters* audioParameters() const { return tracks_->audioParameters(); }
  // Options of the settings that neither the protocol nor the container knows.
  const std::vector<std::string>& unknownOptions() const { return input_->unknownOptions(); }
  // Packets that a decoder found damaged and skipped.
  std::uint64_t damagedPackets() const { return decoder_->damagedPackets(); }
  // How much of the video is decoded from now on.
  void SetStep(DecodeStep step) { decoder_->SetStep(step); }
  // See MediaDecoder.
  void TakeTurns(MediaDecoder::InTurn inTurn) { decoder_->TakeTurns(std::move(inTurn)); }
  // Frames decoded and time spent waiting for packets, since the last call.
  int TakeFrames() { return decoder_->TakeFrames(); }
  std::chrono::nanoseconds TakeWaited() { return std::exchange(waited_, {}); }
  // Offset from the source's timestamps to the times of the items of this kind, since the latest
  // jump; the source's first timestamp, and the time after which they wrap (0: never).
  Time clockOffset(TrackKind kind) const { return decoder_->clockOffset(kind); }
  Time origin() const { return decoder_->origin(); }
  Time wrapPeriod() const { return decoder_->wrapPeriod(); }
  // Before the first Read: reading begins near this timestamp if the source is seekable.
  void SkipTo(Time timestamp) { input_->SkipTo(timestamp); }
  // See PacketSource. At any time; zeros before the source is open.
  SourceCounts counts() const { return input_ ? input_->counts() : SourceCounts(); }
  // How often another stream has replaced the one that was read, as when a service changes its
  // codec, or the stream that was chosen first has returned.
  std::uint64_t replacements() const { return tracks_->replacements(); }
  // How often info().serviceName has changed since the source was opened.
  std::uint64_t renames() const { return tracks_->renames(); }
  // How often the source was repeated.
  std::uint64_t repeats() const { return repeats_; }
  // How often the demuxer of an endless source was replaced.
  std::uint64_t exchanges() const { return input_->exchanges(); }

 private:
  // False when no packet has arrived.
  bool ReadPacket();
  void FinishRepetition();

  const Settings settings_;
  ffmpeg::IoDeadline opening_;  // while another thread opens the source
  os::Mutex lock_;
  // Set under the lock, otherwise used by the reading thread only. The following exist with it.
  std::unique_ptr<PacketSource> input_;
  std::optional<MediaDecoder> decoder_;
  std::optional<TrackSelector> tracks_;
  std::optional<VideoWatch> watch_;  // of a live source with video
  std::chrono::nanoseconds waited_{};
  bool ended_ = false;
  std::uint64_t repeats_ = 0;
};

}  // namespace host
