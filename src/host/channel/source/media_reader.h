// Reads and decodes one source: a file or any URL that FFmpeg opens.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_decoder.h"
#include "host/channel/source/media_info.h"
#include "host/channel/source/media_input.h"
#include "host/channel/source/track_selector.h"
#include "host/channel/source/video_watch.h"

namespace host {

// Gives the best video and the wanted audio of a source, item by item, in the order of the source:
// decoded frames, compressed audio packets, and after each packet its decoded samples. All times
// are on one clock that starts near 0 and continues through wraps, jumps and repeats.
//
//   MediaInput ----packets----> TrackSelector ----packets of the tracks----> MediaDecoder --> items
//   opens, reads, limits        chooses streams, detects new ones            timestamps, decoders
//
// Owned by its channel. Open and Read block, up to the limits of the settings, and belong to one
// thread; Cancel may be called by any thread at any time, also during Open, and makes the blocking
// call end within some milliseconds. A failed reader is thrown away; reopening makes a new one.
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
  bool canGoOn() const { return input_.canGoOn(); }
  void Cancel() { input_.Cancel(); }

  // What follows is valid after Open. A replacement of a stream changes the first two.
  const MediaInfo& info() const { return tracks_.info(); }
  // Of the chosen audio stream, as the container announces it; null without audio.
  const AVCodecParameters* audioParameters() const { return tracks_.audioParameters(); }
  // Options of the settings that neither the protocol nor the container knows.
  const std::vector<std::string>& unknownOptions() const { return input_.unknownOptions(); }
  // Packets that a decoder found damaged and skipped.
  std::uint64_t damagedPackets() const { return decoder_.damagedPackets(); }
  // How often another stream has replaced one that ended, as when a service changes its codec, or
  // the one that was chosen has returned.
  std::uint64_t replacements() const { return tracks_.replacements(); }
  // How often the source began again.
  std::uint64_t repeats() const { return repeats_; }
  // How often another demuxer took over in the midst of an endless source.
  std::uint64_t exchanges() const { return input_.exchanges(); }

 private:
  void ReadPacket();
  void FinishRepetition();

  const Settings settings_;
  MediaInput input_;
  MediaDecoder decoder_;
  TrackSelector tracks_;
  std::optional<VideoWatch> watch_;  // of a live source with video
  bool ended_ = false;
  std::uint64_t repeats_ = 0;
};

}  // namespace host
