// The decoder of one stream.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVStream;

namespace host {

// A decoder that begins in the middle of a GOP lacks reference frames and replaces them by grey.
// So no frame is shown before the first good one, and none that the decoder calls corrupt up to
// then. Which frames are good:
//  - Most decoders mark keyframes.
//  - The H.264 decoder holds its frames back by itself, also for streams with recovery points
//    instead of keyframes (slice by slice refresh): frames are good from the first packet that
//    decoding can begin with.
//  - Other codecs are classified by their packets in the same way.
// Streams with neither keyframes nor recovery points are refreshed all the same: after kMaxWait (or
// kMaxPackets, if their timestamps stand still) everything is shown.
//
// Owned by one decoder; its thread.
class KeyframeGate {
 public:
  static constexpr Time kMaxWait = 12 * kSecond;  // keyframes are up to ten seconds apart
  static constexpr int kMaxPackets = 1500;

  explicit KeyframeGate(AVCodecID codec) : marksKeyframes_(MarksKeyframes(codec)) {}

  // The next packet is not a continuation of those before it.
  void Close() { *this = KeyframeGate(marksKeyframes_); }
  // Before the packet is decoded.
  void Packet(const AVPacket& packet) {
    if (open_) {
      return;
    }
    const std::int64_t time = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    first_ = packets_ == 0 ? time : first_;
    ++packets_;
    std::int64_t waited = 0;
    const bool isAbsurd = __builtin_sub_overflow(time, first_, &waited);
    isOverdue_ = packets_ >= kMaxPackets || isAbsurd || waited >= kMaxWait;
    if (!key_ && (packet.flags & AV_PKT_FLAG_KEY) != 0) {
      key_ = packet.pts != AV_NOPTS_VALUE ? packet.pts : time;
    }
  }
  // Whether the frame may be shown.
  bool Lets(const AVFrame& frame) {
    if (!open_) {
      const bool isGood = frame.key_frame != 0 || (!marksKeyframes_ && key_.has_value() &&
                                                   frame.best_effort_timestamp >= *key_);
      open_ = isOverdue_ || (isGood && (frame.flags & AV_FRAME_FLAG_CORRUPT) == 0);
    }
    return open_;
  }

  // Packets arrive, but none that decoding could begin with.
  bool waits() const { return !open_ && packets_ > 0 && !key_ && !isOverdue_; }
  bool isOverdue() const { return !open_ && isOverdue_; }

 private:
  explicit KeyframeGate(bool marksKeyframes) : marksKeyframes_(marksKeyframes) {}

  static bool MarksKeyframes(AVCodecID codec) {
    switch (codec) {
      case AV_CODEC_ID_HEVC:
      case AV_CODEC_ID_MPEG1VIDEO:
      case AV_CODEC_ID_MPEG2VIDEO:
      case AV_CODEC_ID_MPEG4:
      case AV_CODEC_ID_VP8:
      case AV_CODEC_ID_VP9:
      case AV_CODEC_ID_AV1:
        return true;
      default:
        return false;
    }
  }

  bool marksKeyframes_;
  bool open_ = false;
  bool isOverdue_ = false;
  int packets_ = 0;
  std::int64_t first_ = 0;           // decoding time of the first packet
  std::optional<std::int64_t> key_;  // time of the first packet that decoding can begin with
};

// For a source with at least twice the canvas's rate: finds the frames that the canvas does not
// show, those that are not the nearest to one of its frames. Owned by one decoder; its thread.
class FrameDropper {
 public:
  explicit FrameDropper(Ratio canvasRate);

  // Whether the canvas shows the frame. Called for each packet, in decoding order.
  bool HasPlace(const AVPacket& packet);

 private:
  const Ratio rate_;
  const Time period_;
  Time step_;  // from frame to frame of the source, at most the period
  std::optional<Time> latest_;
};

// How much is decoded. Each step saves more than the one before it.
enum class DecodeStep {
  kFull,
  kUnreferencedUnfiltered,  // no deblocking of frames that no other frame refers to
  kUnfiltered,              // deblocking of keyframes only
  kReferencedOnly,          // frames that no other frame refers to are dropped as well
  kKeyframesOnly,
};
inline constexpr int kDecodeSteps = 5;
// Minimum duration of a keyframe when nothing else is decoded.
inline constexpr Time kKeyframeDuration = 4 * kSecond;

// Decodes packets with timestamps in units of 100 ns; frames have the same unit. A damaged packet
// is counted and skipped; it never ends the stream. Video begins with a keyframe (KeyframeGate).
// Owned and called by one reader on its thread.
class StreamDecoder {
 public:
  using FrameSink = std::function<void(ffmpeg::Frame)>;

  // threads: 1 decodes on the calling thread. canvasRate: unreferenced frames that a canvas of this
  // rate does not show are not decoded; none: all are. Throws ffmpeg::Error when there is no
  // decoder for the stream or it does not start.
  StreamDecoder(const AVStream& stream, int threads, std::optional<Ratio> canvasRate = {});
  ~StreamDecoder();

  // From the next packet on; from kKeyframesOnly to a lower step, from the next keyframe on,
  // because the packets before it refer to frames that were dropped.
  void SetStep(DecodeStep step) { wanted_ = step; }
  // The step at which the latest packet was decoded.
  DecodeStep step() const { return step_; }

  // Decode would ignore the packet.
  bool Leaves(const AVPacket& packet) const {
    return step_ == DecodeStep::kKeyframesOnly && wanted_ == step_ &&
           (packet.flags & AV_PKT_FLAG_KEY) == 0;
  }
  // Hands every frame that is ready to the sink.
  void Decode(const AVPacket& packet, const FrameSink& sink);
  // At the end of the stream: hands over what the decoder still holds.
  void Drain(const FrameSink& sink);
  // Drops what the decoder holds: the next packet is no continuation, for example after a seek.
  void Reset();

  // False when the codec of the stream has changed since.
  bool Fits(const AVStream& stream) const;
  // The parameters of the stream as decoded. Throws ffmpeg::Error.
  ffmpeg::Parameters Form() const;
  // Video arrives, but its first keyframe has not.
  bool awaitsKeyframe() const { return gate_.has_value() && gate_->waits(); }
  std::uint64_t damagedPackets() const { return damagedPackets_; }
  // The decoder has given frames, but only errors for many packets since: the stream is no longer
  // what the decoder was made for. After a single damaged keyframe the limit is higher, because
  // decoding recovers with the next one.
  bool lost() const {
    const int most = damagedKeysInARow_ > 1 ? kDamagedUntilLost : kDamagedWithoutKeysUntilLost;
    return gaveFrames_ && damagedInARow_ >= most;
  }

 private:
  static constexpr int kDamagedUntilLost = 25;
  // More than between two keyframes of most senders: two seconds.
  static constexpr int kDamagedWithoutKeysUntilLost = 64;

  void Receive(const FrameSink& sink);
  void Send(const AVPacket& packet, const FrameSink& sink);
  void FollowStep(bool isKeyframe, const FrameSink& sink);
  void CountDamage();

  ffmpeg::Codec codec_;
  std::optional<KeyframeGate> gate_;  // of video
  std::optional<FrameDropper> dropper_;
  DecodeStep wanted_ = DecodeStep::kFull;
  DecodeStep step_ = DecodeStep::kFull;
  std::uint64_t damagedPackets_ = 0;
  int damagedInARow_ = 0;
  int damagedKeysInARow_ = 0;  // of these, packets that decoding could begin with
  bool gaveFrames_ = false;
};

}  // namespace host
