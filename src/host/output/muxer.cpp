#include "host/output/muxer.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "host/config/url.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/time_unit.h"
#include "host/output/container.h"

namespace host {

Muxer::Muxer(Settings settings) : settings_(std::move(settings)) {
  const AVOutputFormat* const container = FindContainer(settings_.format, settings_.url);
  if (container == nullptr) {
    throw ffmpeg::Error(AVERROR_MUXER_NOT_FOUND, "no known format for", settings_.url);
  }
  AVFormatContext* context = nullptr;
  ffmpeg::Check(avformat_alloc_output_context2(&context, container, nullptr, settings_.url.c_str()),
                "cannot write", settings_.url);
  output_.reset(context);
  // Whole packets of a transport stream in each datagram.
  if (settings_.url.starts_with("udp://") && settings_.url.find("pkt_size") == std::string::npos) {
    settings_.options.emplace("pkt_size", "1316");
  }
  output_->interrupt_callback = {&ffmpeg::IoDeadline::Callback, &deadline_};
  // A connection or a pipe gets each packet at once, not when a buffer is full.
  if (settings_.url.find("://") != std::string::npos || ffmpeg::PipeOutput::Serves(settings_.url)) {
    output_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
  }
  if (settings_.survivesKill && writesFile()) {
    if (const std::optional<Recording> recording = RecordingIn(*container)) {
      const std::size_t given = settings_.options.size();
      settings_.options.insert(recording->options.begin(), recording->options.end());
      // The operator's own options take precedence; nothing is flushed then.
      flushInterval_ = settings_.options.size() > given ? recording->flushInterval : 0;
    }
    output_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
  }
  if (const Time delay = DecoderDelay(*container, settings_.lowDelay); delay > 0) {
    output_->max_delay = static_cast<int>(av_rescale(delay, AV_TIME_BASE, kSecond));
    settings_.options.merge(TransportOptions(*container));
  }
  output_->max_interleave_delta = av_rescale(settings_.interleaveLimit, AV_TIME_BASE, kSecond);
}

Muxer::~Muxer() {
  if (started_) {
    deadline_.Arm(settings_.writeLimit);
    if (!file_ && (output_->oformat->flags & AVFMT_NOFILE) == 0) {
      deadline_.Cancel();  // a failed connection gets no trailer
    }
    if (formatName() == "hls") {
      // The output has failed and will continue: the playlist must not look complete.
      av_opt_set(output_->priv_data, "hls_flags", "+omit_endlist", 0);
    }
    av_write_trailer(output_.get());
  }
  EndPcrs();
}

bool Muxer::wantsGlobalHeader() const {
  return (output_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
}

bool Muxer::TakesAdts() const {
  const std::string format = formatName();
  return format == "mpegts" || format == "hls" || format == "rtp_mpegts" || format == "adts";
}

std::string Muxer::formatName() const {
  return output_->oformat->name;
}

void Muxer::SetOption(const std::string& key, const std::string& value) {
  settings_.options[key] = value;
}

void Muxer::SetUrl(const std::string& url) {
  char* const copy = av_strdup(url.c_str());
  if (copy == nullptr) {
    throw std::bad_alloc();
  }
  av_free(std::exchange(output_->url, copy));
  settings_.url = url;
}

std::size_t Muxer::AddTrack(const AVCodecParameters& parameters) {
  if (started_) {
    throw std::logic_error("tracks are added before the output starts");
  }
  if (!Holds(*output_->oformat, parameters.codec_id)) {
    throw ffmpeg::Error(AVERROR(ENOSYS), CannotHold(*output_->oformat, parameters.codec_id));
  }
  AVStream* stream = avformat_new_stream(output_.get(), nullptr);
  if (stream == nullptr || avcodec_parameters_copy(stream->codecpar, &parameters) < 0) {
    throw std::bad_alloc();
  }
  // The tag belongs to the container that the parameters came from.
  stream->codecpar->codec_tag = 0;
  stream->time_base = ffmpeg::kTimeUnit;
  tracks_.emplace_back();
  return tracks_.size() - 1;
}

std::size_t Muxer::AddVideo(const AVCodecParameters& parameters, Ratio frameRate) {
  const std::size_t track = AddTrack(parameters);
  videoTrack_ = track;
  AVStream* stream = output_->streams[track];
  stream->avg_frame_rate = {frameRate.num, frameRate.den};
  stream->r_frame_rate = stream->avg_frame_rate;
  stream->sample_aspect_ratio = parameters.sample_aspect_ratio;
  stream->disposition |= AV_DISPOSITION_DEFAULT;
  // A stream that can be joined anywhere repeats the codec's headers at its keyframes.
  if (!wantsGlobalHeader() && parameters.extradata_size > 0) {
    tracks_[track].filter = ffmpeg::MakePacketFilter("dump_extra", parameters);
  }
  return track;
}

std::size_t Muxer::AddAudio(const AVCodecParameters& parameters, const std::string& name,
                            const std::string& language) {
  const std::size_t track = AddTrack(parameters);
  AVStream* stream = output_->streams[track];
  // Containers that store the configuration take AAC without ADTS headers.
  if (parameters.codec_id == AV_CODEC_ID_AAC && parameters.extradata_size > 0 && !TakesAdts()) {
    tracks_[track].filter = ffmpeg::MakePacketFilter("aac_adtstoasc", parameters);
  }
  if (!name.empty()) {
    av_dict_set(&stream->metadata, "title", name.c_str(), 0);
    if (formatName() == "mp4" || formatName() == "mov") {
      av_dict_set(&stream->metadata, "handler_name", name.c_str(), 0);  // the one they keep
    }
  }
  if (!language.empty()) {
    av_dict_set(&stream->metadata, "language", language.c_str(), 0);
  }
  return track;
}

bool Muxer::writesFile() const {
  return (output_->oformat->flags & AVFMT_NOFILE) == 0 && config::LocalPath(settings_.url) &&
         !ffmpeg::PipeOutput::Serves(settings_.url);
}

bool Muxer::hasDelivered() const {
  return file_ ? file_->written() > headerEnd_ : paced_ ? paced_->hasSent() : written_;
}

void Muxer::DiscardFile() {
  if (file_) {
    file_->Discard();
  }
}

void Muxer::SetFile(std::unique_ptr<ffmpeg::FileOutput> file) {
  SetUrl(file->path());
  file_ = std::move(file);
}

void Muxer::Open(ffmpeg::Options& options) {
  if (!file_ && ffmpeg::PipeOutput::WritesStandardFile(settings_.url)) {
    file_ = ffmpeg::FileOutput::OfStandardOutput();
  } else if (!file_ && writesFile()) {
    file_ = std::make_unique<ffmpeg::FileOutput>(settings_.url,
                                                 ffmpeg::FileOutput::Existing::kReplaced);
  } else if (!file_ && ffmpeg::PipeOutput::Serves(settings_.url)) {
    pipe_.emplace(settings_.url, deadline_);
  }
  if (file_ || pipe_) {
    output_->pb = file_ ? file_->io() : pipe_->io();
    output_->flags |= AVFMT_FLAG_CUSTOM_IO;
    return;
  }
  Connect(options);
}

void Muxer::Connect(ffmpeg::Options& options) {
  const std::optional<config::Url> url = config::ParseUrl(settings_.url);
  if (url && config::Listens(*url, settings_.options)) {
    // No limit: a port that is closed and opened again refuses viewers in between.
    deadline_.Disarm();
  }
  const bool isPaced = settings_.isPaced && url && url->scheme == "udp" &&
                       formatName() == "mpegts" && !settings_.options.contains("bitrate") &&
                       !url->query.contains("bitrate");
  // Datagrams also leave between two writes, to which the deadline of a write does not apply.
  const AVIOInterruptCB interrupt = {&ffmpeg::IoDeadline::Callback,
                                     isPaced ? &pacing_ : &deadline_};
  const int result = avio_open2(&output_->pb, settings_.url.c_str(), AVIO_FLAG_WRITE, &interrupt,
                                options.Exchange());
  if (result == AVERROR_EXIT && deadline_.expired()) {
    throw ffmpeg::Error(AVERROR(ETIMEDOUT), "nobody has answered at", settings_.url);
  }
  ffmpeg::Check(result, "cannot write", settings_.url);
  if (isPaced) {
    paced_.emplace(ffmpeg::Connection(std::exchange(output_->pb, nullptr)), deadline_,
                   settings_.lowDelay ? TransportPacer::kLowDelayShare : TransportPacer::kShare);
    output_->pb = paced_->io();
    output_->flags |= AVFMT_FLAG_CUSTOM_IO;
  }
}

void Muxer::Start() {
  deadline_.Arm(settings_.openLimit);
  if (!settings_.title.empty()) {
    av_dict_set(&output_->metadata, "title", settings_.title.c_str(), 0);
    av_dict_set(&output_->metadata, "service_name", settings_.title.c_str(), 0);
  }
  ffmpeg::Options options;
  for (const auto& [key, value] : settings_.options) {
    options.Set(key.c_str(), value);
  }
  if ((output_->oformat->flags & AVFMT_NOFILE) == 0) {
    Open(options);
  }
  deadline_.Arm(settings_.writeLimit);
  ffmpeg::Check(avformat_write_header(output_.get(), options.Exchange()), "cannot write",
                settings_.url);
  unknownOptions_ = options.UnusedKeys();
  headerEnd_ = file_ ? avio_tell(output_->pb) : 0;
  started_ = true;
  FillPcrs();
}

// Without a constant rate FFmpeg writes a PCR with frames only.
void Muxer::FillPcrs() {
  if (formatName() == "mpegts" && videoTrack_ && !settings_.options.contains("muxrate")) {
    pcrs_.emplace(output_->pb);
    output_->pb = pcrs_->io();
  }
}

void Muxer::EndPcrs() {
  if (pcrs_) {
    output_->pb = pcrs_->below();
    pcrs_.reset();
  }
}

// Writes what the container holds back as a complete part of the file.
void Muxer::FlushBefore(const AVPacket& packet) {
  if (flushInterval_ == 0 || packet.dts == AV_NOPTS_VALUE) {
    return;
  }
  if (!flushed_) {
    flushed_ = packet.dts;
  } else if (packet.dts - *flushed_ >= flushInterval_) {
    ffmpeg::Check(av_write_frame(output_.get(), nullptr), "cannot write", settings_.url);
    flushed_ = packet.dts;
  }
}

bool Muxer::Write(std::size_t track, ffmpeg::Packet packet) {
  FlushBefore(*packet);
  AVBSFContext* const filter = tracks_.at(track).filter.get();
  if (filter == nullptr) {
    return WriteFiltered(track, std::move(packet));
  }
  packet->time_base = ffmpeg::kTimeUnit;
  int result = av_bsf_send_packet(filter, packet.get());
  bool written = false;
  while (result >= 0) {
    ffmpeg::Packet filtered = ffmpeg::MakePacket();
    result = av_bsf_receive_packet(filter, filtered.get());
    if (result >= 0) {
      // The track has its config from the start; a second one would confuse some containers.
      av_packet_free_side_data(filtered.get());
      written = WriteFiltered(track, std::move(filtered)) || written;
    }
  }
  if (result != AVERROR_INVALIDDATA && result != AVERROR(EAGAIN)) {
    ffmpeg::Check(result, "cannot write", settings_.url);
  }
  return written;
}

bool Muxer::WriteFiltered(std::size_t track, ffmpeg::Packet packet) {
  const AVStream& stream = *output_->streams[track];
  av_packet_rescale_ts(packet.get(), ffmpeg::kTimeUnit, stream.time_base);
  packet->time_base = stream.time_base;
  packet->stream_index = static_cast<int>(track);
  if (packet->dts == AV_NOPTS_VALUE) {
    packet->dts = packet->pts;
  }
  std::optional<std::int64_t>& last = tracks_.at(track).lastDts;
  // Timestamps that are equal because the container's time base is coarse stay equal where the
  // container allows it.
  const bool mayRepeat = (output_->oformat->flags & AVFMT_TS_NONSTRICT) != 0;
  const std::int64_t earliest = last ? *last + (mayRepeat ? 0 : 1) : packet->dts;
  if (packet->dts != AV_NOPTS_VALUE && packet->dts < earliest) {
    packet->dts = earliest;
  }
  if (packet->pts != AV_NOPTS_VALUE) {
    packet->pts = std::max(packet->pts, packet->dts);
  }
  last = packet->dts;
  deadline_.Arm(settings_.writeLimit);
  if (pcrs_ && packet->dts != AV_NOPTS_VALUE && !settings_.interleaves) {
    pcrs_->Announce(av_rescale_q(packet->dts, stream.time_base, {1, 90'000}), track == videoTrack_);
  }
  const int result = settings_.interleaves ? av_interleaved_write_frame(output_.get(), packet.get())
                                           : av_write_frame(output_.get(), packet.get());
  if (result == AVERROR_INVALIDDATA) {
    return false;
  }
  ffmpeg::Check(result, "cannot write", settings_.url);
  written_ = true;
  return true;
}

void Muxer::Finish() {
  if (!std::exchange(started_, false)) {
    return;
  }
  // Finishing a file may take long: its index may be moved to its beginning.
  file_ ? deadline_.Disarm() : deadline_.Arm(settings_.writeLimit);
  ffmpeg::Check(av_write_trailer(output_.get()), "cannot finish", settings_.url);
  if (pcrs_) {
    ffmpeg::Check(pcrs_->Flush(), "cannot finish", settings_.url);
    EndPcrs();
  }
  if (file_) {
    file_->Close();
  } else if (pipe_) {
    avio_flush(output_->pb);
    ffmpeg::Check(output_->pb->error, "cannot finish", settings_.url);
  } else if (paced_) {
    avio_flush(output_->pb);
    ffmpeg::Check(paced_->Drain(), "cannot finish", settings_.url);
  } else if ((output_->oformat->flags & AVFMT_NOFILE) == 0) {
    ffmpeg::Check(avio_closep(&output_->pb), "cannot finish", settings_.url);
  }
}

}  // namespace host
