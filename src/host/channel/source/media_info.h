// What a source carries and what comes out of it, as plain data.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/channel/source/orientation.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

struct AudioFormat;

// What of a source is shown and heard.
enum class TrackKind { kVideo, kAudio };
inline constexpr std::array<TrackKind, 2> kTrackKinds{TrackKind::kVideo, TrackKind::kAudio};

inline const char* NameOf(TrackKind kind) {
  return kind == TrackKind::kVideo ? "video" : "audio";
}

struct VideoInfo {
  int streamIndex = 0;
  std::string codec;  // FFmpeg's name, for example "h264"
  int width = 0;      // pixels, as announced; a frame may differ
  int height = 0;
  Ratio pixelAspect{1, 1};
  Ratio frameRate{0, 1};  // 0/1 when not known
  std::string pixelFormat;
  std::string colourSpace;  // "unknown" when not announced
  std::string colourRange;
};

struct AudioInfo {
  int streamIndex = 0;
  std::string codec;
  int sampleRate = 0;  // hertz
  int channels = 0;
  std::string language;  // ISO 639, empty when not known
  std::string title;     // empty when not known
};

// Why a source gives no audio.
enum class AudioAbsence {
  kNone,         // it does
  kOff,          // nobody wants it
  kNotInSource,  // no track
  kNoTrack,      // tracks, but not the chosen one
  kNotStarted,   // announced, but nothing has come yet
  kUndecodable,
};

// Who decides when the next part of a source comes.
enum class SourceKind {
  kFile,  // a file: everything is there already, and it can be sought in
  kPull,  // live, but it waits for its reader: HLS, HTTP, RTMP, pipes
  kPush,  // live, and lost when it is not read in time: UDP, RTP, RTSP, SRT
};

struct MediaInfo {
  std::string format;          // FFmpeg's name of the container
  std::optional<Time> length;  // of files
  SourceKind kind = SourceKind::kPull;
  std::string serviceName;  // of a transport stream's programme, otherwise the title; may be empty
  std::optional<VideoInfo> video;
  std::string noVideoReason;  // why there is no video, otherwise empty
  std::optional<AudioInfo> audio;
  AudioAbsence audioAbsence = AudioAbsence::kNone;
  std::string noAudioReason;
  std::vector<AudioInfo> audioTracks;  // all that the source offers
};

// One decoded frame; its duration is that of a frame of the source.
struct DecodedFrame {
  ffmpeg::Frame frame;
  Time start = 0;
  Time duration = 0;
  bool discontinuity = false;  // the source's timestamps jumped before it
  Orientation orientation;     // of its display matrix
};

// One compressed audio packet as the source has it. Its own timestamps are those of start and
// duration, in units of 100 ns.
struct AudioPacket {
  ffmpeg::Packet packet;
  Time start = 0;
  Time duration = 0;
  bool discontinuity = false;
  std::shared_ptr<const AudioFormat> format;  // set on the way to the outputs
};

// The decoded samples of an audio packet, in the layout, rate and format of the source.
struct AudioSamples {
  ffmpeg::Frame frame;
  Time start = 0;
  Time duration = 0;
};

// The source has ended. Nothing follows.
struct EndOfMedia {};

using MediaItem = std::variant<DecodedFrame, AudioPacket, AudioSamples, EndOfMedia>;

}  // namespace host
