#include "host/channel/source/stream_mirror.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <numeric>
#include <span>
#include <string_view>
#include <type_traits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

#include "host/channel/source/media_info.h"

namespace host {
namespace {

// For calls that fail only when memory is exhausted.
template <typename Result>
Result NeedsMemory(Result result) {
  bool failed = false;
  if constexpr (std::is_pointer_v<Result>) {
    failed = result == nullptr;
  } else {
    failed = result < 0;
  }
  if (failed) {
    throw std::bad_alloc();
  }
  return result;
}

void CopyDictionary(AVDictionary*& to, const AVDictionary* from) {
  av_dict_free(&to);
  NeedsMemory(av_dict_copy(&to, from, 0));
}

// As far as a decoder and a description need.
bool IsKnown(const AVCodecParameters& form) {
  return form.codec_type == AVMEDIA_TYPE_VIDEO   ? form.width > 0
         : form.codec_type == AVMEDIA_TYPE_AUDIO ? form.sample_rate > 0
                                                 : true;
}

bool KeepsForm(const AVCodecParameters& known, const AVCodecParameters& given) {
  return known.codec_type == given.codec_type && known.codec_id == given.codec_id &&
         IsKnown(known) && !IsKnown(given);
}

bool IsSameForm(const AVCodecParameters& one, const AVCodecParameters& other) {
  return one.codec_type == other.codec_type && one.codec_id == other.codec_id &&
         one.format == other.format && one.width == other.width && one.height == other.height &&
         one.sample_rate == other.sample_rate &&
         one.ch_layout.nb_channels == other.ch_layout.nb_channels &&
         one.extradata_size == other.extradata_size &&
         (one.extradata_size == 0 ||
          std::memcmp(one.extradata, other.extradata,
                      static_cast<std::size_t>(one.extradata_size)) == 0);
}

void CopyForm(AVCodecParameters& to, const AVCodecParameters& from) {
  NeedsMemory(avcodec_parameters_copy(&to, &from));
}

void CopyStream(AVStream& to, const AVFormatContext& input, const AVStream& from) {
  to.id = from.id;
  to.time_base = from.time_base;
  to.start_time = from.start_time;
  to.duration = from.duration;
  to.nb_frames = from.nb_frames;
  to.sample_aspect_ratio = from.sample_aspect_ratio;
  to.avg_frame_rate = from.avg_frame_rate;
  // The guess uses what only the demuxer knows.
  to.r_frame_rate = av_guess_frame_rate(const_cast<AVFormatContext*>(&input),
                                        const_cast<AVStream*>(&from), nullptr);
  to.pts_wrap_bits = from.pts_wrap_bits;
  CopyDictionary(to.metadata, from.metadata);
  if (!KeepsForm(*to.codecpar, *from.codecpar)) {
    CopyForm(*to.codecpar, *from.codecpar);
  }
  for (const AVPacketSideData& data : std::span(from.side_data, from.nb_side_data)) {
    std::memcpy(NeedsMemory(av_stream_new_side_data(&to, data.type, data.size)), data.data,
                data.size);
  }
}

std::string_view NameOfService(const AVProgram& program) {
  const char* const name = ServiceName(&program);
  return name != nullptr ? name : "";
}

bool HasStreams(const AVProgram& program, const AVProgram& from, const std::vector<int>& places) {
  return program.nb_stream_indexes == from.nb_stream_indexes &&
         std::equal(program.stream_index, program.stream_index + program.nb_stream_indexes,
                    from.stream_index, [&](unsigned place, unsigned index) {
                      return static_cast<int>(place) == places[index];
                    });
}

const AVProgram* ProgramOf(const AVFormatContext& context, int id) {
  const std::span<AVProgram* const> programs(context.programs, context.nb_programs);
  const auto found = std::find_if(programs.begin(), programs.end(),
                                  [&](const AVProgram* each) { return each->id == id; });
  return found != programs.end() ? *found : nullptr;
}

void CopyPrograms(AVFormatContext& to, const AVFormatContext& from,
                  const std::vector<int>& places) {
  for (AVProgram* const each : std::span(to.programs, to.nb_programs)) {
    each->nb_stream_indexes = 0;
  }
  for (const AVProgram* const each : std::span(from.programs, from.nb_programs)) {
    AVProgram& program = *NeedsMemory(av_new_program(&to, each->id));
    CopyDictionary(program.metadata, each->metadata);
    for (unsigned i = 0; i < each->nb_stream_indexes; ++i) {
      av_program_add_stream_index(&to, each->id,
                                  static_cast<unsigned>(places[each->stream_index[i]]));
    }
  }
}

// Makes the stream the best by its disposition, which is the first criterion.
void Prefer(AVFormatContext& mirror, int best) {
  if (best < 0) {
    return;
  }
  constexpr int kImpaired = AV_DISPOSITION_HEARING_IMPAIRED | AV_DISPOSITION_VISUAL_IMPAIRED;
  for (AVStream* const each : std::span(mirror.streams, mirror.nb_streams)) {
    if (each->index == best) {
      each->disposition = (each->disposition & ~kImpaired) | AV_DISPOSITION_DEFAULT;
    } else if (each->codecpar->codec_type == mirror.streams[best]->codecpar->codec_type) {
      each->disposition &= ~AV_DISPOSITION_DEFAULT;
    }
  }
}

}  // namespace

void FreeMirror::operator()(AVFormatContext* context) const noexcept {
  avformat_free_context(context);
}

StreamMirror MakeMirror(const AVFormatContext& from) {
  StreamMirror mirror(NeedsMemory(avformat_alloc_context()));
  mirror->iformat = from.iformat;  // for its name and flags; nothing is read with it
  mirror->url = from.url != nullptr ? NeedsMemory(av_strdup(from.url)) : nullptr;
  mirror->ctx_flags = from.ctx_flags;
  mirror->start_time = from.start_time;
  mirror->duration = from.duration;
  CopyDictionary(mirror->metadata, from.metadata);
  std::vector<int> places(from.nb_streams);
  std::iota(places.begin(), places.end(), 0);
  UpdateMirror(*mirror, from, places);
  return mirror;
}

void PreferBest(AVFormatContext& mirror, const AVFormatContext& demuxer) {
  const int video = ChooseVideoStream(demuxer);
  Prefer(mirror, video);
  Prefer(mirror, ChooseAudioStream(demuxer, 0, {}, video));
}

bool DiffersFrom(const AVFormatContext& mirror, const AVFormatContext& from,
                 const std::vector<int>& places) {
  for (unsigned i = 0; i < from.nb_streams; ++i) {
    if (places[i] >= static_cast<int>(mirror.nb_streams)) {
      return true;
    }
    const AVCodecParameters& known = *mirror.streams[places[i]]->codecpar;
    const AVCodecParameters& given = *from.streams[i]->codecpar;
    if (!IsSameForm(known, given) && !KeepsForm(known, given)) {
      return true;
    }
  }
  unsigned same = 0;
  for (const AVProgram* const each : std::span(from.programs, from.nb_programs)) {
    const AVProgram* const program = ProgramOf(mirror, each->id);
    if (program == nullptr || !HasStreams(*program, *each, places) ||
        NameOfService(*program) != NameOfService(*each)) {
      return true;
    }
    same += each->nb_stream_indexes > 0 ? 1 : 0;
  }
  const std::span<AVProgram* const> programs(mirror.programs, mirror.nb_programs);
  return std::count_if(programs.begin(), programs.end(),
                       [](const AVProgram* each) { return each->nb_stream_indexes > 0; }) != same;
}

void UpdateMirror(AVFormatContext& mirror, const AVFormatContext& from,
                  const std::vector<int>& places) {
  const auto most = std::max_element(places.begin(), places.end());
  while (most != places.end() && static_cast<int>(mirror.nb_streams) <= *most) {
    NeedsMemory(avformat_new_stream(&mirror, nullptr));
  }
  for (unsigned i = 0; i < from.nb_streams; ++i) {
    AVStream& stream = *mirror.streams[places[i]];
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_UNKNOWN) {
      stream.disposition = from.streams[i]->disposition;
    }
    CopyStream(stream, from, *from.streams[i]);
  }
  CopyPrograms(mirror, from, places);
}

void SetForm(AVFormatContext& mirror, int place, const AVCodecParameters& form) {
  AVCodecParameters& known = *mirror.streams[place]->codecpar;
  if (!IsKnown(known)) {
    CopyForm(known, form);
  }
}

std::vector<int> PlacesIn(const AVFormatContext& mirror, const AVFormatContext& from) {
  std::vector<int> places;
  int count = static_cast<int>(mirror.nb_streams);
  for (unsigned i = 0; i < from.nb_streams; ++i) {
    const int place = SameStreamIn(mirror, from, static_cast<int>(i));
    places.push_back(place >= 0 ? place : count++);
  }
  return places;
}

}  // namespace host
