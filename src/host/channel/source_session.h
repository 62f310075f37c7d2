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
  // audioChanged: gets a sentence when the audio takes another path to the outputs; may be null.
  SourceSession(const ChannelSettings& settings, const RenditionReader& reader, FeedPin& videoPin,
                ChannelQueue& queue, std::function<void(const std::string&)> audioChanged);

  // The next item of the reader, except its end. False once the queue is closed. A frame that
  // cannot be converted is dropped; throws ffmpeg::Error after many of them in a row.
  bool Handle(MediaItem item);
  // Queues what converters, meters and encoders still hold.
  bool Finish();

  // Time spent waiting for buffers since the last call.
  std::chrono::nanoseconds TakeWaited() { return std::exchange(waited_, {}); }

  // What could not be converted and was dropped.
  std::uint64_t lostFrames() const { return lostFrames_; }
  std::uint64_t lostAudio() const { return audio_ ? audio_->lost() : 0; }

  // How often the timestamps of the video (without video, of the audio) have jumped.
  std::uint64_t jumps() const { return jumps_; }

  const ItemPlacer& placer() const { return placer_; }
  ItemPlacer& placer() { return placer_; }

 private:
  // Within a catch block; throws its error again when it is one of many in a row.
  void LoseFrame();
  // For decoding and scaling; see DecodeBudget.
  DecodeBudget::Turn TakeTurn() const;
  void Count(bool isFrame, bool isDiscontinuity);
  bool DrainConverter();
  Time Now() const { return settings_.now ? settings_.now() : 0; }
  bool AddReading(const LevelMeter::Reading& reading);
  // Packets arrive but give no samples, or give samples again. False once the queue is closed.
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
  bool open_ = true;  // false once the queue is closed
  std::chrono::nanoseconds waited_{};
};

}  // namespace host
