// Encodes the mosaic.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVCodec;

namespace host {

// By FFmpeg's name of an encoder or of a codec; null when it is not for video or there is no
// encoder.
const AVCodec* FindVideoEncoder(const std::string& name);
// The name of an encoder or codec that a wrong one resembles.
std::optional<std::string> NearestVideoCodec(const std::string& name);

// YV12 frames (packed: Y, V, U, stride = width, BT.601 studio range) into compressed packets. The
// frame is copied before Encode returns, so the caller's buffer is free again. Owned and called by
// one thread; no lock. Encoders use threads of their own inside.
class VideoEncoder {
 public:
  struct Settings : config::Encoding {
    int width = 0;  // pixels, even
    int height = 0;
    Ratio frameRate{25, 1};
    Ratio pixelAspect{1, 1};
    std::string profile;  // of the encoder's names; empty: its choice
    // Bits per second that constant quality does not exceed over a second, where the encoder can
    // hold to it; 0: no limit.
    std::int64_t maxRate = 0;
    bool sceneCuts = true;  // more keyframes where the encoder finds a new scene
    // Limits the encoder's delay by its number of threads and, with the default preset, by its
    // lookahead and reordering; 0: no limit.
    Time maxDelay = 0;
    int threads = 0;           // 0: as many as the encoder likes
    bool globalHeader = true;  // what Matroska and MP4 need, and MPEG-TS does not

    bool operator==(const Settings&) const = default;
  };

  using PacketSink = std::function<void(ffmpeg::Packet)>;

  // Throws ffmpeg::Error.
  explicit VideoEncoder(const Settings& settings);
  ~VideoEncoder();

  // Keyframes are at that time and whole keyframe intervals later, even if frames are left out,
  // besides those that the encoder chooses; without this call the first frame is the beginning.
  void BeginGrid(Time start) { gridStart_ = start; }
  // start: on the output's clock. Frames may be left out, but all starts lie on the grid of the
  // frame rate that the first one opens; others are moved to the nearest later free place on it.
  // The sink gets the packets that are ready, timestamped in units of 100 ns. Throws ffmpeg::Error.
  void Encode(std::span<const std::uint8_t> yv12, Time start, const PacketSink& sink);
  // The same for a frame in planes, which has the encoder's size and format and whose timestamp is
  // set here. The encoder may keep a reference to its buffers.
  void Encode(AVFrame& frame, Time start, const PacketSink& sink);
  // The next frame becomes a keyframe.
  void ForceKeyframe() { isForced_ = true; }
  // Hands over what is still inside; nothing may be encoded afterwards.
  void Finish(const PacketSink& sink);

  // For Muxer::AddVideo.
  ffmpeg::Parameters parameters() const;
  // FFmpeg's name of the encoder in use, for example "libx264".
  std::string encoderName() const;

 private:
  void LimitDelay(const Settings& settings, ffmpeg::Options& options);
  void Receive(const PacketSink& sink);

  ffmpeg::Codec codec_;
  ffmpeg::Frame frame_;
  Time frameDuration_;
  std::optional<Time> firstStart_;
  std::optional<Time> gridStart_;
  std::optional<std::int64_t> interval_;  // of the latest frame, counted from gridStart_
  bool isForced_ = false;
  std::int64_t lastFrame_ = -1;  // counted from the first, in frames
};

// The time between two keyframes in whole frames.
Time KeyframeInterval(const VideoEncoder::Settings& settings);

}  // namespace host
