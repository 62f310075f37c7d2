// What a source carries, what is read from it, and why it fails, as plain data; and how these facts
// are read out of FFmpeg's structures.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "util/exceptions.h"

struct AVFormatContext;
struct AVFrame;
struct AVProgram;
struct AVStream;

namespace host {

struct AudioFormat;

// One of the eight orientations that keep the edges of a frame upright or level: mirrored left to
// right first, then turned clockwise.
struct Orientation {
  int rotation = 0;  // degrees: 0, 90, 180 or 270
  bool mirrored = false;

  // Its width becomes its height.
  bool swapsSides() const { return rotation % 180 != 0; }
  bool operator==(const Orientation&) const = default;
};

// The one nearest to a display matrix of nine numbers (libavutil/display.h); only their signs and
// relative sizes count. Upright where the matrix says nothing. matrix may be null.
Orientation OrientationOf(const std::int32_t* matrix);

// The tracks of a source that a channel uses.
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

// One elementary stream of a program. Unknown values are 0 or empty.
struct StreamInfo {
  int pid = 0;
  std::string kind;  // "video", "audio", "subtitle", "data"
  std::string codec;
  int width = 0;  // pixels
  int height = 0;
  Ratio frameRate{0, 1};
  int sampleRate = 0;  // hertz
  int channels = 0;
  std::string language;  // ISO 639
};

// A program of a transport stream.
struct ProgramInfo {
  int number = 0;
  std::string name;      // of the service, may be empty
  std::string provider;  // likewise
  std::vector<StreamInfo> streams;
};

// Why a source gives no audio.
enum class AudioAbsence {
  kNone,         // it has audio
  kOff,          // switched off
  kNotInSource,  // no track
  kNoTrack,      // tracks, but not the chosen one
  kNotStarted,   // announced, but nothing has arrived yet
  kUndecodable,
};

// What decides when the next part of a source arrives.
enum class SourceKind {
  kFile,  // a file: complete and seekable
  kPull,  // live, but it waits for its reader: HLS, HTTP, RTMP, pipes
  kPush,  // live, and lost when it is not read in time: UDP, RTP, RTSP, SRT
};

struct MediaInfo {
  std::string format;          // FFmpeg's name of the container
  std::optional<Time> length;  // of files
  SourceKind kind = SourceKind::kPull;
  std::string serviceName;  // of the program that is shown, otherwise the title; may be empty
  std::optional<VideoInfo> video;
  std::string noVideoReason;  // why there is no video, otherwise empty
  std::optional<AudioInfo> audio;
  AudioAbsence audioAbsence = AudioAbsence::kNone;
  std::string noAudioReason;
  std::vector<AudioInfo> audioTracks;  // all that the source, or the wanted program, offers
  std::vector<ProgramInfo> programs;   // of a transport stream, when it was opened
};

// One decoded frame; its duration is that of a frame of the source.
struct DecodedFrame {
  ffmpeg::Frame frame;
  Time start = 0;
  Time duration = 0;
  bool discontinuity = false;  // the source's timestamps jumped before it
  Orientation orientation;     // of its display matrix
};

// One compressed audio packet as the source has it. The timestamps in the packet equal start and
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

// 0 for the end.
Time StartOf(const MediaItem& item);
Time DurationOf(const MediaItem& item);
// The item begins later by this much.
void Shift(MediaItem& item, Time by);

// What arrived over the connection of a source.
struct SourceCounts {
  std::uint64_t bytes = 0;
  std::uint64_t packetsLost = 0;     // RTP packets that never arrived
  std::uint64_t packetsDamaged = 0;  // packets that the demuxer calls incomplete

  SourceCounts& operator+=(const SourceCounts& other) {
    bytes += other.bytes;
    packetsLost += other.packetsLost;
    packetsDamaged += other.packetsDamaged;
    return *this;
  }
};

class MediaError : public TavrelException {
 public:
  enum class Kind {
    kNotFound,   // no such file
    kNotMedia,   // opened, but in no format that FFmpeg knows
    kNoStreams,  // neither video nor audio that can be decoded
    kTimedOut,   // no data within the limit
    kCancelled,  // the reader was cancelled
    kFailed,     // anything else: refused, unreachable, broken connection, ...
  };

  // reason: one short sentence without the source, fit for a slate. source: masked already.
  MediaError(Kind kind, std::string reason, const std::string& source)
      : kind_(kind), reason_(std::move(reason)), message_("\"" + source + "\": " + reason_) {}

  Kind kind() const { return kind_; }
  const std::string& reason() const { return reason_; }
  // The source in quotes and the reason.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  Kind kind_;
  std::string reason_;
  std::string message_;
};

// Container, length, service name and all audio tracks; not which video and audio are used.
MediaInfo DescribeMedia(const AVFormatContext& input);
// Whether its container is of the MP4 family.
bool IsMp4(const AVFormatContext& input);
VideoInfo DescribeVideo(AVFormatContext& input, AVStream& stream);
AudioInfo DescribeAudio(const AVStream& stream);

// The stream's number among those of its kind, counted from 0. index: of the stream in the input.
int OrdinalOf(const AVFormatContext& input, int index);
// Index in one demuxer of the stream that has the given index in a former demuxer of the same
// source; -1 where there is none, or in another codec.
int SameStreamIn(const AVFormatContext& input, const AVFormatContext& former, int index);

// Cover art of a file, which FFmpeg counts as video.
bool IsCoverArt(const AVStream& stream);

// Those programs of a transport stream that have streams; none for other containers.
std::vector<ProgramInfo> DescribePrograms(AVFormatContext& input);
// The names of their services, by number.
std::map<int, std::string> ProgramNames(const AVFormatContext& input);
// Null when there is no such program, or it has no streams.
const AVProgram* FindProgram(const AVFormatContext& input, const config::ProgramChoice& wanted);
bool IsIn(const AVProgram& program, int stream);
// As the container has it; null without one. program may be null.
const char* ServiceName(const AVProgram* program);

// Index of the best video stream (of the program, if given), or a negative AVERROR.
int ChooseVideoStream(const AVFormatContext& input, const AVProgram* program = nullptr);

// Index of the audio stream that a channel wants (of the program, if given), or a negative AVERROR.
// track is counted from 1; 0: any. videoStream (or -1) decides between equal ones.
int ChooseAudioStream(const AVFormatContext& input, std::size_t track, const std::string& language,
                      int videoStream, const AVProgram* program = nullptr);

// By their display matrix, where there is one.
std::optional<Orientation> AnnouncedOrientation(const AVFrame& frame);
std::optional<Orientation> AnnouncedOrientation(const AVStream& stream);

// The time after which the timestamps of the stream wrap; 0: never.
Time WrapPeriod(const AVStream& stream);

}  // namespace host
