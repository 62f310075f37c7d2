// The part of MediaReader that exchanges the demuxer of a source that never ends.
#include <algorithm>
#include <string_view>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/describe_media.h"
#include "host/channel/source/media_reader.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

// A replacement begins with the oldest segment of a list: the reader is somewhere in it.
constexpr const char* kFirstSegment = "live_start_index";
constexpr const char* kOldest = "-1000";

bool HasSegments(const AVFormatContext& input) {
  const std::string_view name = input.iformat->name;
  return name == "hls" || name == "dash";
}

// In the form that MP4 has, with a configuration of its own before the packets.
bool IsFromMp4(const AVStream& stream) {
  const AVCodecParameters& parameters = *stream.codecpar;
  const bool isVideo =
      parameters.codec_id == AV_CODEC_ID_H264 || parameters.codec_id == AV_CODEC_ID_HEVC;
  return !isVideo || (parameters.extradata_size > 0 && parameters.extradata[0] == 1);
}

}  // namespace

// FFmpeg's demuxer of MP4 keeps an index entry of every packet.
void MediaReader::WatchIndex() {
  ++packetsOfInput_;
  if (info_.kind == SourceKind::kFile || replacement_) {
    return;
  }
  if (fragments_) {
    const auto entries = [this](const std::optional<Track>& track) {
      return track ? avformat_index_get_entries_count(input_->streams[track->streamIndex]) : 0;
    };
    if (std::max(entries(video_), entries(audio_)) >= settings_.maxIndexEntries) {
      fragments_->EndBeforeNextFragment();
    }
    return;
  }
  const Track& track = video_ ? *video_ : *audio_;
  if (packetsOfInput_ >= settings_.maxIndexEntries && track.latest && HasSegments(*input_) &&
      IsFromMp4(*input_->streams[track.streamIndex])) {
    ReplacementInput::Settings settings;
    settings.name = address_.name();
    settings.options = address_.OpenOptions(settings_.options.options);
    if (input_->iformat->name == std::string_view("hls")) {
      settings.options[kFirstSegment] = kOldest;
    }
    for (const std::optional<Track>* each : {&video_, &audio_}) {
      if (*each && (*each)->latest) {
        const int index = (*each)->streamIndex;
        settings.positions.push_back({input_->streams[index]->codecpar->codec_type,
                                      OrdinalOf(*input_, index), *(*each)->latest});
      }
    }
    replacement_.emplace(std::move(settings));
  }
}

void MediaReader::ReadOnWithNextDemuxer() {
  // Until the next fragment has come.
  deadline_.Arm(Milliseconds(settings_.options.readLimit));
  fragments_->Restart();
  ffmpeg::Options options;
  SetOptions(options, pipe_ ? SourceAddress::PipeOptions(settings_.options.options)
                            : address_.OpenOptions(settings_.options.options));
  try {
    Exchange(ffmpeg::OpenInput(address_.name(), fragments_->io(), options, deadline_));
  } catch (const ffmpeg::Error& error) {
    Fail(error.code(), false);
  }
}

void MediaReader::AdoptReplacement() {
  if (!replacement_ || !replacement_->ready()) {
    return;
  }
  std::optional<ReplacementInput::Opened> opened = replacement_->Take();
  replacement_.reset();
  packetsOfInput_ = 0;
  if (!opened) {
    return;  // tried again when as many packets have come
  }
  opened->deadline->Follow(deadline_);
  for (std::optional<Track>* track : {&video_, &audio_}) {
    if (*track) {
      (*track)->resumeAfter = (*track)->latest;
    }
  }
  Exchange(std::move(opened->input));
  inputDeadline_ = std::move(opened->deadline);
  for (ffmpeg::Packet& packet : opened->packets) {
    HandlePacket(std::move(packet));
  }
}

int MediaReader::StreamIn(const AVFormatContext& input, const Track& track) const {
  const AVStream& stream = *input_->streams[track.streamIndex];
  const int ordinal = OrdinalOf(*input_, track.streamIndex);
  for (int i = 0; i < static_cast<int>(input.nb_streams); ++i) {
    const AVCodecParameters& other = *input.streams[i]->codecpar;
    if (other.codec_type == stream.codecpar->codec_type && OrdinalOf(input, i) == ordinal &&
        other.codec_id == stream.codecpar->codec_id) {
      return i;
    }
  }
  throw MediaError(MediaError::Kind::kFailed, "its streams have changed", maskedSource_);
}

void MediaReader::Exchange(ffmpeg::InputFormat next) {
  for (unsigned i = 0; i < next->nb_streams; ++i) {
    next->streams[i]->discard = AVDISCARD_ALL;
  }
  for (std::optional<Track>* track : {&video_, &audio_}) {
    if (*track) {
      const int index = StreamIn(*next, **track);
      next->streams[index]->discard = AVDISCARD_DEFAULT;
      (*track)->streamIndex = index;
      (*track)->failover = StreamFailover(index);
    }
  }
  awaited_.clear();
  input_ = std::move(next);
  inputDeadline_.reset();
  knownStreams_ = input_->nb_streams;
  headerEnd_ = input_->pb != nullptr ? avio_tell(input_->pb) : 0;
  packetsOfInput_ = 0;
  ++exchanges_;
}

bool MediaReader::IsRepeated(Track& track, std::optional<Time> dts) {
  if (track.resumeAfter && dts && *dts <= *track.resumeAfter) {
    return true;
  }
  track.resumeAfter.reset();
  if (dts) {
    track.latest = dts;
  }
  return false;
}

}  // namespace host
