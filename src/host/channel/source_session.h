// SourceSession: one opening of a channel's source, from its first item to its last.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "host/channel/audio/audio_passthrough.h"
#include "host/channel/audio/level_meter.h"
#include "host/channel/channel_settings.h"
#include "host/channel/item_placer.h"
#include "host/channel/rendition/rendition_reader.h"
#include "host/channel/video/frame_converter.h"
#include "host/channel/video/frame_meter.h"
#include "host/feed/feed_pin.h"

namespace host {

// Converts frames into the buffers of the video pin, measures video and audio, brings compressed
// audio into the form of the channel's track, and has everything placed and queued (ItemPlacer).
//
// Owned and called by the channel's reader thread.
class SourceSession {
 public:
  // reader is open, and outlives the session, as do the settings, the pin and the queue.
  // audioChanged: gets a sentence whenever the audio reaches the outputs in another way; may be
  // null.
  SourceSession(const ChannelSettings& settings, const RenditionReader& reader, FeedPin& videoPin,
                ChannelQueue& queue, std::function<void(const std::string&)> audioChanged);

  // The next item of the reader, but for its end. False once the queue is closed. A frame that
  // cannot be converted is left out; throws ffmpeg::Error when that is so of many in a row.
  bool Handle(MediaItem item);
  // Hands on what converters, meters and encoders still hold.
  bool Finish();

  // How long it was waited for buffers since the last call.
  std::chrono::nanoseconds TakeWaited() { return std::exchange(waited_, {}); }

  // What could not be converted and was left out.
  std::uint64_t lostFrames() const { return lostFrames_; }
  std::uint64_t lostAudio() const { return audio_ ? audio_->lost() : 0; }

  // How often the timestamps of the video, or of audio without video, have jumped.
  std::uint64_t jumps() const { return jumps_; }

  const ItemPlacer& placer() const { return placer_; }
  ItemPlacer& placer() { return placer_; }

 private:
  // Throws the error again when it is one of many in a row.
  void LoseFrame();
  // For what computes; see DecodeBudget.
  DecodeBudget::Turn TakeTurn() const;
  void Count(bool isFrame, bool isDiscontinuity);
  bool DrainConverter();
  Time Now() const { return settings_.now ? settings_.now() : 0; }
  bool AddReading(const LevelMeter::Reading& reading);
  // Packets come, but no samples of them, or samples again. Both false once the queue is closed.
  bool NoteUndecoded(Time start);
  bool NoteDecoded(Time start);
  bool NoteAudio(Time start, AudioAbsence absence, const std::string& reason);

  const ChannelSettings& settings_;
  const RenditionReader& reader_;
  FeedPin& videoPin_;
  ItemPlacer placer_;
  std::optional<AudioPassthrough> audio_;
  const AudioPassthrough::Sink audioSink_;
  FrameConverter converter_;
  FrameMeter frameMeter_;
  SamplePlanes planes_;
  LevelMeter meter_;
  std::optional<Time> undecodedSince_;  // start of the first packet after the latest samples
  bool isUndecodable_ = false;
  std::uint64_t lostFrames_ = 0;
  std::uint64_t jumps_ = 0;
  int lostInARow_ = 0;
  bool open_ = true;  // the queue is
  std::chrono::nanoseconds waited_{};
};

}  // namespace host
