#include "host/channel/source/media_info.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

// A point (x, y) of the frame, y downwards, goes to (a x + c y, b x + d y).
Orientation OrientationOf(const std::int32_t* matrix) {
  if (matrix == nullptr) {
    return {};
  }
  std::int64_t a = matrix[0];
  std::int64_t b = matrix[1];
  const std::int64_t c = matrix[3];
  const std::int64_t d = matrix[4];
  const bool swapsSides = std::abs(b) + std::abs(c) > std::abs(a) + std::abs(d);
  Orientation orientation;
  if (swapsSides ? b == 0 || c == 0 : a == 0 || d == 0) {
    return orientation;
  }
  orientation.mirrored = swapsSides ? (b < 0) == (c < 0) : (a < 0) != (d < 0);
  if (orientation.mirrored) {
    a = -a;
    b = -b;
  }
  if (swapsSides) {
    orientation.rotation = b > 0 ? 90 : 270;
  } else {
    orientation.rotation = a > 0 ? 0 : 180;
  }
  return orientation;
}

namespace {

constexpr const char* kServiceName = "service_name";

std::string Entry(const AVDictionary* metadata, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(metadata, key, nullptr, 0);
  return entry != nullptr ? ffmpeg::Printable(entry->value) : "";
}

std::string ServiceNameIn(const AVFormatContext& input) {
  for (unsigned i = 0; i < input.nb_programs; ++i) {
    if (std::string name = Entry(input.programs[i]->metadata, kServiceName); !name.empty()) {
      return name;
    }
  }
  if (std::string name = Entry(input.metadata, "service_name"); !name.empty()) {
    return name;
  }
  return Entry(input.metadata, "title");
}

Ratio ToRatio(AVRational value) {
  return value.num > 0 && value.den > 0 ? Ratio{value.num, value.den} : Ratio{0, 1};
}

std::optional<Orientation> OrientationIn(const std::uint8_t* data, std::size_t size) {
  std::array<std::int32_t, 9> matrix{};
  if (data == nullptr || size < sizeof matrix) {
    return std::nullopt;
  }
  std::memcpy(matrix.data(), data, sizeof matrix);
  return OrientationOf(matrix.data());
}

std::string NameOrUnknown(const char* name) {
  return name != nullptr ? name : "unknown";
}

SourceKind SourceKindOf(const AVFormatContext& input) {
  // These demuxers open sockets of their own; "rtp" and "sdp" are the same without a session.
  static constexpr std::array<std::string_view, 3> kOwnSockets = {"rtsp", "rtp", "sdp"};
  static constexpr std::array<std::string_view, 5> kDatagrams = {"udp", "udplite", "rtp", "srtp",
                                                                 "srt"};
  const auto contains = [](const auto& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  const char* const protocol = input.url != nullptr ? avio_find_protocol_name(input.url) : nullptr;
  if (contains(kOwnSockets, input.iformat->name) ||
      (protocol != nullptr && contains(kDatagrams, protocol))) {
    return SourceKind::kPush;
  }
  // The playlist of a live HLS source is a seekable file; the source itself is not seekable.
  const bool isFile = input.pb != nullptr && (input.pb->seekable & AVIO_SEEKABLE_NORMAL) != 0 &&
                      (input.ctx_flags & AVFMTCTX_UNSEEKABLE) == 0;
  return isFile ? SourceKind::kFile : SourceKind::kPull;
}

// Index of a stream that belongs to this program first; -1 without one.
int RelatedStream(const AVFormatContext& input, const AVProgram& program) {
  for (unsigned i = 0; i < program.nb_stream_indexes; ++i) {
    const int index = static_cast<int>(program.stream_index[i]);
    if (av_find_program_from_stream(const_cast<AVFormatContext*>(&input), nullptr, index) ==
        &program) {
      return index;
    }
  }
  return -1;
}

int BestStream(const AVFormatContext& input, AVMediaType type, int related,
               const AVProgram* program) {
  if (program != nullptr && related < 0) {
    related = RelatedStream(input, *program);
  }
  const int best =
      av_find_best_stream(const_cast<AVFormatContext*>(&input), type, -1, related, nullptr, 0);
  if (program == nullptr || (best >= 0 && IsIn(*program, best))) {
    return best;
  }
  for (unsigned i = 0; i < program->nb_stream_indexes; ++i) {
    const unsigned index = program->stream_index[i];
    if (input.streams[index]->codecpar->codec_type == type) {
      return static_cast<int>(index);
    }
  }
  return AVERROR_STREAM_NOT_FOUND;
}

// Start and duration; both are 0 at the end.
std::pair<Time, Time> SpanOf(const MediaItem& item) {
  return std::visit(
      [](const auto& each) -> std::pair<Time, Time> {
        if constexpr (std::is_same_v<std::decay_t<decltype(each)>, EndOfMedia>) {
          return {0, 0};
        } else {
          return {each.start, each.duration};
        }
      },
      item);
}

}  // namespace

MediaInfo DescribeMedia(const AVFormatContext& input) {
  MediaInfo info;
  info.format = input.iformat->name;
  if (input.duration != AV_NOPTS_VALUE && input.duration > 0) {
    info.length = av_rescale(input.duration, kSecond, AV_TIME_BASE);
  }
  info.kind = SourceKindOf(input);
  info.serviceName = ServiceNameIn(input);
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    if (input.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      info.audioTracks.push_back(DescribeAudio(*input.streams[i]));
    }
  }
  return info;
}

bool IsMp4(const AVFormatContext& input) {
  return std::string_view(input.iformat->name).find("mp4") != std::string_view::npos;
}

VideoInfo DescribeVideo(AVFormatContext& input, AVStream& stream) {
  const AVCodecParameters& parameters = *stream.codecpar;
  VideoInfo info;
  info.streamIndex = stream.index;
  info.codec = avcodec_get_name(parameters.codec_id);
  info.width = parameters.width;
  info.height = parameters.height;
  if (const Ratio aspect = ToRatio(av_guess_sample_aspect_ratio(&input, &stream, nullptr));
      aspect.positive()) {
    info.pixelAspect = aspect;
  }
  info.frameRate = ToRatio(av_guess_frame_rate(&input, &stream, nullptr));
  info.pixelFormat =
      NameOrUnknown(av_get_pix_fmt_name(static_cast<AVPixelFormat>(parameters.format)));
  info.colourSpace = NameOrUnknown(av_color_space_name(parameters.color_space));
  info.colourRange = NameOrUnknown(av_color_range_name(parameters.color_range));
  return info;
}

AudioInfo DescribeAudio(const AVStream& stream) {
  AudioInfo info;
  info.streamIndex = stream.index;
  info.codec = avcodec_get_name(stream.codecpar->codec_id);
  info.sampleRate = stream.codecpar->sample_rate;
  info.channels = stream.codecpar->ch_layout.nb_channels;
  info.language = Entry(stream.metadata, "language");
  if (info.language == "und") {
    info.language.clear();
  }
  info.title = Entry(stream.metadata, "title");
  // MP4 has a track's name in this field; its writers put "SoundHandler" there when it has none.
  if (std::string name = Entry(stream.metadata, "handler_name");
      info.title.empty() && name != "SoundHandler") {
    info.title = std::move(name);
  }
  return info;
}

int OrdinalOf(const AVFormatContext& input, int index) {
  const AVMediaType kind = input.streams[index]->codecpar->codec_type;
  return static_cast<int>(
      std::count_if(input.streams, input.streams + index,
                    [&](const AVStream* other) { return other->codecpar->codec_type == kind; }));
}

int SameStreamIn(const AVFormatContext& input, const AVFormatContext& former, int index) {
  const AVCodecParameters& known = *former.streams[index]->codecpar;
  const int ordinal = OrdinalOf(former, index);
  for (int i = 0; i < static_cast<int>(input.nb_streams); ++i) {
    const AVCodecParameters& other = *input.streams[i]->codecpar;
    if (other.codec_type == known.codec_type && OrdinalOf(input, i) == ordinal &&
        other.codec_id == known.codec_id) {
      return i;
    }
  }
  return -1;
}

bool IsCoverArt(const AVStream& stream) {
  return (stream.disposition & (AV_DISPOSITION_ATTACHED_PIC | AV_DISPOSITION_TIMED_THUMBNAILS)) !=
         0;
}

const char* ServiceName(const AVProgram* program) {
  const AVDictionaryEntry* const entry =
      program != nullptr ? av_dict_get(program->metadata, kServiceName, nullptr, 0) : nullptr;
  return entry != nullptr ? entry->value : nullptr;
}

bool IsIn(const AVProgram& program, int stream) {
  const std::span<const unsigned> streams(program.stream_index, program.nb_stream_indexes);
  return std::find(streams.begin(), streams.end(), static_cast<unsigned>(stream)) != streams.end();
}

std::map<int, std::string> ProgramNames(const AVFormatContext& input) {
  std::map<int, std::string> names;
  for (unsigned i = 0; i < input.nb_programs; ++i) {
    const AVProgram& program = *input.programs[i];
    if (program.nb_stream_indexes > 0) {
      names[program.id] = Entry(program.metadata, kServiceName);
    }
  }
  return names;
}

const AVProgram* FindProgram(const AVFormatContext& input, const config::ProgramChoice& wanted) {
  for (unsigned i = 0; i < input.nb_programs; ++i) {
    const AVProgram& program = *input.programs[i];
    if (program.nb_stream_indexes > 0 &&
        (wanted.number != 0 ? program.id == wanted.number
                            : Entry(program.metadata, kServiceName) == wanted.name)) {
      return &program;
    }
  }
  return nullptr;
}

std::vector<ProgramInfo> DescribePrograms(AVFormatContext& input) {
  std::vector<ProgramInfo> programs;
  if (std::string_view(input.iformat->name) != "mpegts") {
    return programs;
  }
  for (unsigned i = 0; i < input.nb_programs; ++i) {
    const AVProgram& program = *input.programs[i];
    if (program.nb_stream_indexes == 0) {
      continue;
    }
    ProgramInfo info{program.id,
                     Entry(program.metadata, kServiceName),
                     Entry(program.metadata, "service_provider"),
                     {}};
    for (unsigned k = 0; k < program.nb_stream_indexes; ++k) {
      AVStream& stream = *input.streams[program.stream_index[k]];
      const AVCodecParameters& parameters = *stream.codecpar;
      StreamInfo each;
      const char* const kind = av_get_media_type_string(parameters.codec_type);
      each.pid = stream.id;
      each.kind = kind != nullptr ? kind : "data";
      each.codec = avcodec_get_name(parameters.codec_id);
      each.width = parameters.width;
      each.height = parameters.height;
      if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        each.frameRate = ToRatio(av_guess_frame_rate(&input, &stream, nullptr));
      }
      each.sampleRate = parameters.sample_rate;
      each.channels = parameters.ch_layout.nb_channels;
      each.language = Entry(stream.metadata, "language");
      info.streams.push_back(std::move(each));
    }
    programs.push_back(std::move(info));
  }
  return programs;
}

int ChooseVideoStream(const AVFormatContext& input, const AVProgram* program) {
  const int best = BestStream(input, AVMEDIA_TYPE_VIDEO, -1, program);
  if (best < 0 || !IsCoverArt(*input.streams[best])) {
    return best;
  }
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    if (input.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
        !IsCoverArt(*input.streams[i])) {
      return static_cast<int>(i);
    }
  }
  return AVERROR_STREAM_NOT_FOUND;
}

int ChooseAudioStream(const AVFormatContext& input, std::size_t track, const std::string& language,
                      int videoStream, const AVProgram* program) {
  std::size_t seen = 0;
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    if (input.streams[i]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO ||
        (program != nullptr && !IsIn(*program, static_cast<int>(i)))) {
      continue;
    }
    ++seen;
    if (track == seen || (track == 0 && !language.empty() &&
                          Entry(input.streams[i]->metadata, "language") == language)) {
      return static_cast<int>(i);
    }
  }
  if (track != 0) {
    return AVERROR_STREAM_NOT_FOUND;
  }
  return BestStream(input, AVMEDIA_TYPE_AUDIO, videoStream, program);
}

std::optional<Orientation> AnnouncedOrientation(const AVFrame& frame) {
  const AVFrameSideData* const data = av_frame_get_side_data(&frame, AV_FRAME_DATA_DISPLAYMATRIX);
  return data != nullptr ? OrientationIn(data->data, data->size) : std::nullopt;
}

std::optional<Orientation> AnnouncedOrientation(const AVStream& stream) {
  std::size_t size = 0;
  const std::uint8_t* const data =
      av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  return OrientationIn(data, size);
}

Time WrapPeriod(const AVStream& stream) {
  if (stream.pts_wrap_bits <= 0 || stream.pts_wrap_bits >= 62) {
    return 0;
  }
  return av_rescale_q(std::int64_t{1} << stream.pts_wrap_bits, stream.time_base, ffmpeg::kTimeUnit);
}

Time StartOf(const MediaItem& item) {
  return SpanOf(item).first;
}

Time DurationOf(const MediaItem& item) {
  return SpanOf(item).second;
}

void Shift(MediaItem& item, Time by) {
  std::visit(
      [by](auto& each) {
        using Item = std::decay_t<decltype(each)>;
        if constexpr (!std::is_same_v<Item, EndOfMedia>) {
          each.start += by;
        }
        if constexpr (std::is_same_v<Item, AudioPacket>) {
          each.packet->pts = each.start;
          each.packet->dts = each.start;
        }
      },
      item);
}

}  // namespace host
