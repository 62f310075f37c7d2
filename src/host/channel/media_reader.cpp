#include "host/channel/media_reader.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/channel/describe_media.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"

namespace host {

namespace {

constexpr AVRational kTimeUnit = {1, static_cast<int>(kSecond)};
constexpr Time kDefaultPictureDuration = 400'000;
// A longer step forwards in a source whose stamps are known to jump is no gap.
constexpr Time kLongestGap = 10 * kSecond;

std::string Seconds(std::chrono::milliseconds limit) {
  std::string text = std::to_string(limit.count() / 1000);
  if (limit.count() % 1000 != 0) {
    text += "." + std::to_string(limit.count() % 1000 / 100);
  }
  return text + " s";
}

// A file whose name looks like a URL ("cam:1.ts") is still a file.
std::string OpenName(const std::string& source) {
  std::error_code ignored;
  const bool isFile =
      source.find("://") == std::string::npos && std::filesystem::exists(source, ignored);
  return isFile ? "file:" + source : source;
}

std::optional<Time> ToTime(std::int64_t stamp, AVRational unit) {
  if (stamp == AV_NOPTS_VALUE) {
    return {};
  }
  return av_rescale_q(stamp, unit, kTimeUnit);
}

Time WrapPeriod(const AVStream& stream) {
  if (stream.pts_wrap_bits <= 0 || stream.pts_wrap_bits >= 62) {
    return 0;
  }
  return av_rescale_q(std::int64_t{1} << stream.pts_wrap_bits, stream.time_base, kTimeUnit);
}

}  // namespace

MediaReader::MediaReader(Settings settings)
    : settings_(std::move(settings)), maskedSource_(ffmpeg::MaskCredentials(settings_.source)) {}

MediaReader::~MediaReader() = default;

void MediaReader::Fail(int code, bool opening) const {
  using Kind = MediaError::Kind;
  if (code == AVERROR(ENOMEM)) {
    throw std::bad_alloc();
  }
  if (deadline_.cancelled()) {
    throw MediaError(Kind::kCancelled, "stopped", maskedSource_);
  }
  // The packet that the ended call still gave may have come before its failure.
  if (deadline_.expired() || code == AVERROR_EXIT) {
    throw MediaError(Kind::kTimedOut,
                     opening ? "did not open within " + Seconds(settings_.openLimit)
                             : "no data for " + Seconds(settings_.readLimit),
                     maskedSource_);
  }
  const std::string text = ffmpeg::ErrorText(code);
  if (opening && code == AVERROR(ENOENT)) {
    throw MediaError(Kind::kNotFound, "no such file", maskedSource_);
  }
  if (opening && (code == AVERROR_INVALIDDATA || code == AVERROR_EOF)) {
    throw MediaError(Kind::kNotMedia, "not a media file, or damaged (" + text + ")", maskedSource_);
  }
  throw MediaError(Kind::kFailed,
                   (opening ? "cannot be opened: " : "cannot be read further: ") + text,
                   maskedSource_);
}

void MediaReader::Open() {
  deadline_.Arm(settings_.openLimit);
  if (ffmpeg::PipeInput::Serves(settings_.source)) {
    try {
      pipe_.emplace(settings_.source, deadline_);
    } catch (const ffmpeg::Error& error) {
      Fail(error.code(), true);
    }
  }
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  context->interrupt_callback = {&ffmpeg::IoDeadline::Callback, &deadline_};
  if (pipe_) {
    context->pb = pipe_->io();
  }
  ffmpeg::Options options;
  for (const auto& [key, value] : settings_.options) {
    options.Set(key.c_str(), value);
  }
  // On failure this frees the context itself.
  int result = avformat_open_input(&context, OpenName(settings_.source).c_str(), nullptr,
                                   options.Exchange());
  if (result < 0) {
    Fail(result, true);
  }
  input_.reset(context);
  // FFmpeg draws any text file as a terminal would: for a wall that is a wrong path, not a picture.
  if (std::string_view(input_->iformat->name) == "tty") {
    Fail(AVERROR_INVALIDDATA, true);
  }
  unknownOptions_ = options.UnusedKeys();
  result = avformat_find_stream_info(input_.get(), nullptr);
  if (result < 0 || deadline_.cancelled()) {
    Fail(result, true);
  }
  deadline_.Disarm();
  ChooseTracks();
}

void MediaReader::StartTrack(std::optional<Track>& track, int streamIndex, std::string& whyNot) {
  AVStream& stream = *input_->streams[streamIndex];
  track.emplace();
  track->streamIndex = streamIndex;
  try {
    track->decoder.emplace(stream, settings_.decoderThreads);
  } catch (const ffmpeg::Error& error) {
    track.reset();
    whyNot = error.what();
    return;
  }
  track->clockStream = clock_->AddStream(WrapPeriod(stream));
  stream.discard = AVDISCARD_DEFAULT;
}

void MediaReader::ChooseTracks() {
  info_ = DescribeMedia(*input_);
  const bool mayJump = (input_->iformat->flags & AVFMT_TS_DISCONT) != 0 || !info_.seekable;
  clock_.emplace(mayJump ? kLongestGap : std::numeric_limits<Time>::max() / 4,
                 ToTime(input_->start_time, AV_TIME_BASE_Q));
  for (unsigned i = 0; i < input_->nb_streams; ++i) {
    input_->streams[i]->discard = AVDISCARD_ALL;
  }

  const int video = av_find_best_stream(input_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  info_.noVideoReason = settings_.wantVideo ? "it has no video" : "video is switched off";
  if (settings_.wantVideo && video >= 0) {
    AVStream& stream = *input_->streams[video];
    StartTrack(video_, video, info_.noVideoReason);
    if (video_) {
      info_.noVideoReason.clear();
      info_.video = DescribeVideo(*input_, stream);
      video_->pictureDuration = info_.video->frameRate.positive()
                                    ? FrameDuration(info_.video->frameRate)
                                    : kDefaultPictureDuration;
    }
  }

  const int audio =
      ChooseAudioStream(*input_, settings_.audioTrack, settings_.audioLanguage, video);
  info_.noAudioReason = settings_.wantAudio ? "it has no audio" : "audio is switched off";
  if (settings_.wantAudio && settings_.audioTrack > info_.audioTracks.size()) {
    info_.noAudioReason = "it has no audio track " + std::to_string(settings_.audioTrack) +
                          " (of " + std::to_string(info_.audioTracks.size()) + ")";
  } else if (settings_.wantAudio && audio >= 0) {
    StartTrack(audio_, audio, info_.noAudioReason);
    if (audio_) {
      info_.noAudioReason.clear();
      info_.audio = DescribeAudio(*input_->streams[audio]);
      audioParameters_ = ffmpeg::CopyParameters(*input_->streams[audio]->codecpar);
    }
  }

  if (!video_ && !audio_) {
    throw MediaError(MediaError::Kind::kNoStreams,
                     "nothing to show: " + info_.noVideoReason + ", and " + info_.noAudioReason,
                     maskedSource_);
  }
}

MediaItem MediaReader::Read() {
  while (ready_.empty()) {
    if (ended_) {
      return EndOfMedia{};
    }
    ReadPacket();
  }
  MediaItem item = std::move(ready_.front());
  ready_.pop_front();
  return item;
}

void MediaReader::ReadPacket() {
  if (deadline_.cancelled()) {
    Fail(AVERROR_EXIT, false);
  }
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  deadline_.Arm(settings_.readLimit);
  const int result = av_read_frame(input_.get(), packet.get());
  if (result >= 0) {
    HandlePacket(std::move(packet));
    return;
  }
  if (result == AVERROR(EAGAIN)) {
    return;
  }
  // Containers report the end of a connection that broke as an ordinary end.
  if (result != AVERROR_EOF || deadline_.expired() || deadline_.cancelled()) {
    Fail(result, false);
  }
  if (input_->pb != nullptr && input_->pb->error < 0 && input_->pb->error != AVERROR_EOF) {
    Fail(input_->pb->error, false);
  }
  FinishPass();
}

void MediaReader::HandlePacket(ffmpeg::Packet packet) {
  const bool isVideo = video_ && packet->stream_index == video_->streamIndex;
  const bool isAudio = audio_ && packet->stream_index == audio_->streamIndex;
  if (!isVideo && !isAudio) {
    return;
  }
  Track& track = isVideo ? *video_ : *audio_;
  const AVRational unit = input_->streams[track.streamIndex]->time_base;
  const Time duration = packet->duration > 0 ? av_rescale_q(packet->duration, unit, kTimeUnit) : 0;
  const SourceClock::Mapped mapped = clock_->Map(
      track.clockStream, {ToTime(packet->dts, unit), ToTime(packet->pts, unit), duration});
  packet->dts = mapped.dts;
  packet->pts = mapped.pts.value_or(AV_NOPTS_VALUE);
  packet->duration = duration;
  packet->time_base = kTimeUnit;
  if (isVideo) {
    if (mapped.discontinuity) {
      track.discontinuityAt = mapped.dts;
    }
    DecodeVideo(*packet);
  } else {
    GiveAudioPacket(*packet, mapped.discontinuity);
    DecodeAudio(*packet);
  }
}

void MediaReader::DecodeVideo(const AVPacket& packet) {
  const auto sink = [this](ffmpeg::Frame frame) { GivePicture(std::move(frame)); };
  const AVStream& stream = *input_->streams[video_->streamIndex];
  if (!video_->decoder->Fits(stream)) {
    video_->decoder->Drain(sink);
    try {
      video_->decoder.emplace(stream, settings_.decoderThreads);
    } catch (const ffmpeg::Error& error) {
      throw MediaError(MediaError::Kind::kFailed, error.what(), maskedSource_);
    }
  }
  video_->decoder->Decode(packet, sink);
}

void MediaReader::DecodeAudio(const AVPacket& packet) {
  if (settings_.decodeAudio) {
    audio_->decoder->Decode(packet, [this](ffmpeg::Frame frame) { GiveSamples(std::move(frame)); });
  }
}

// An item that does not start after the one before it is moved just behind it.
void MediaReader::GivePicture(ffmpeg::Frame frame) {
  // The container's word on the shape of the pixels holds over the stream's.
  frame->sample_aspect_ratio =
      av_guess_sample_aspect_ratio(input_.get(), input_->streams[video_->streamIndex], frame.get());
  VideoPicture picture;
  picture.start = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp
                                                                 : video_->nextStart;
  if (video_->lastStart) {
    picture.start = std::max(picture.start, *video_->lastStart + 1);
  }
  picture.duration = frame->pkt_duration > 0 ? frame->pkt_duration : video_->pictureDuration;
  if (video_->discontinuityAt && picture.start >= *video_->discontinuityAt) {
    picture.discontinuity = true;
    video_->discontinuityAt.reset();
  }
  video_->lastStart = picture.start;
  video_->nextStart = picture.start + picture.duration;
  picture.frame = std::move(frame);
  gaveInPass_ = true;
  ready_.emplace_back(std::move(picture));
}

void MediaReader::GiveAudioPacket(const AVPacket& packet, bool discontinuity) {
  AudioPacket item;
  item.packet = ffmpeg::RefPacket(packet);
  item.start = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
  if (audio_->lastStart) {
    item.start = std::max(item.start, *audio_->lastStart);
  }
  item.packet->pts = item.start;
  item.packet->dts = item.start;
  item.duration = packet.duration;
  item.discontinuity = discontinuity;
  audio_->lastStart = item.start;
  gaveInPass_ = true;
  ready_.emplace_back(std::move(item));
}

void MediaReader::GiveSamples(ffmpeg::Frame frame) {
  if (frame->sample_rate <= 0 || frame->nb_samples <= 0) {
    return;
  }
  AudioSamples samples;
  samples.start = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp
                                                                 : audio_->nextStart;
  samples.duration = av_rescale(frame->nb_samples, kSecond, frame->sample_rate);
  audio_->nextStart = samples.start + samples.duration;
  samples.frame = std::move(frame);
  ready_.emplace_back(std::move(samples));
}

// The end of the source: what the decoders still hold comes out, then it ends or begins again.
void MediaReader::FinishPass() {
  if (video_) {
    video_->decoder->Drain([this](ffmpeg::Frame frame) { GivePicture(std::move(frame)); });
  }
  if (audio_ && settings_.decodeAudio) {
    audio_->decoder->Drain([this](ffmpeg::Frame frame) { GiveSamples(std::move(frame)); });
  }
  // A source that gave nothing would begin again for ever.
  if (settings_.repeat && gaveInPass_) {
    Rewind();
    return;
  }
  ended_ = true;
}

void MediaReader::Rewind() {
  // A transport stream has no index: its beginning is found by position, not by time.
  const bool byPosition = (input_->iformat->flags & AVFMT_TS_DISCONT) != 0;
  const Time start = input_->start_time != AV_NOPTS_VALUE ? input_->start_time : 0;
  int result = byPosition ? av_seek_frame(input_.get(), -1, 0, AVSEEK_FLAG_BYTE)
                          : av_seek_frame(input_.get(), -1, start, AVSEEK_FLAG_BACKWARD);
  if (result < 0) {
    result = av_seek_frame(input_.get(), -1, byPosition ? start : 0,
                           byPosition ? AVSEEK_FLAG_BACKWARD : AVSEEK_FLAG_BYTE);
  }
  if (result < 0) {
    throw MediaError(MediaError::Kind::kFailed, "cannot begin again: " + ffmpeg::ErrorText(result),
                     maskedSource_);
  }
  if (video_) {
    video_->decoder->Reset();
  }
  if (audio_) {
    audio_->decoder->Reset();
  }
  clock_->Restart();
  gaveInPass_ = false;
  ++repeats_;
}

std::uint64_t MediaReader::damagedPackets() const {
  return (video_ ? video_->decoder->damagedPackets() : 0) +
         (audio_ ? audio_->decoder->damagedPackets() : 0);
}

}  // namespace host
