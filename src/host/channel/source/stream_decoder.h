// The decoder of one stream.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/channel/source/keyframe_gate.h"
#include "host/ffmpeg/handles.h"

struct AVStream;

namespace host {

// Decodes packets whose timestamps are in units of 100 ns; frames have the same unit. A damaged
// packet is counted and skipped, as a monitor must: it never ends the stream. Frames of video begin
// with a keyframe (KeyframeGate). Owned and called by one reader on its thread.
class StreamDecoder {
 public:
  using FrameSink = std::function<void(ffmpeg::Frame)>;

  // threads: 1 decodes on the calling thread. Throws ffmpeg::Error when there is no decoder for the
  // stream or it does not start.
  StreamDecoder(const AVStream& stream, int threads);
  ~StreamDecoder();

  // Hands every frame that is ready to the sink.
  void Decode(const AVPacket& packet, const FrameSink& sink);
  // The stream is at its end: hands over what the decoder still holds.
  void Drain(const FrameSink& sink);
  // Forgets what it holds: the next packet is unrelated, for example after a seek.
  void Reset();

  // False when the stream's codec has become another one since.
  bool Fits(const AVStream& stream) const;
  // Video comes, but its first keyframe is still to come.
  bool awaitsKeyframe() const { return gate_.has_value() && gate_->waits(); }
  std::uint64_t damagedPackets() const { return damagedPackets_; }
  // It gave frames once, and has given none but errors for many packets: what comes is no longer
  // what the decoder was made for. What follows one damaged keyframe comes back with the next
  // one, and is waited for longer.
  bool lost() const {
    const int most = damagedKeysInARow_ > 1 ? kDamagedUntilLost : kDamagedWithoutKeysUntilLost;
    return gaveFrames_ && damagedInARow_ >= most;
  }

 private:
  static constexpr int kDamagedUntilLost = 25;
  // More than lie between two keyframes of most senders: two seconds.
  static constexpr int kDamagedWithoutKeysUntilLost = 64;

  void Receive(const FrameSink& sink);
  void CountDamage();

  ffmpeg::Codec codec_;
  std::optional<KeyframeGate> gate_;  // of video
  std::uint64_t damagedPackets_ = 0;
  int damagedInARow_ = 0;
  int damagedKeysInARow_ = 0;  // of these, packets that decoding could begin with
  bool gaveFrames_ = false;
};

}  // namespace host
