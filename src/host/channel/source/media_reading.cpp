// The part of MediaReader that reads and decodes; media_reader.cpp opens.
#include <algorithm>
#include <string_view>
#include <system_error>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/describe_media.h"
#include "host/channel/source/media_reader.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kKeyframeTimeout(KeyframeGate::kMaxWait / kMillisecond);

std::optional<Time> GivenTime(std::int64_t timestamp) {
  return timestamp != AV_NOPTS_VALUE ? std::optional<Time>(timestamp) : std::nullopt;
}

}  // namespace

MediaItem MediaReader::Read() {
  using Clock = VideoWatch::Clock;
  if (watch_) {
    watch_->BeginReading(Clock::now());
  }
  while (ready_.empty()) {
    if (ended_) {
      return EndOfMedia{};
    }
    ReadPacket();
    const bool awaitsKeyframe = video_ && video_->decoder->awaitsKeyframe();
    if (watch_ && watch_->Expired(Clock::now(),
                                  awaitsKeyframe ? kKeyframeTimeout : Clock::duration::zero())) {
      throw MediaError(MediaError::Kind::kTimedOut, "it sends, but no picture that can be decoded",
                       maskedSource_);
    }
  }
  if (watch_) {
    watch_->EndReading(Clock::now());
  }
  MediaItem item = std::move(ready_.front());
  ready_.pop_front();
  return item;
}

void MediaReader::ReadPacket() {
  if (deadline_.cancelled()) {
    Fail(AVERROR_EXIT, false);
  }
  canGoOn_ = false;
  AdoptReplacement();
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  deadline_.Arm(Milliseconds(settings_.options.readLimit));
  const int result = av_read_frame(input_.get(), packet.get());
  if (result >= 0) {
    silences_ = 0;
    WatchIndex();
    HandlePacket(std::move(packet));
    return;
  }
  if (result == AVERROR(EAGAIN)) {
    return;
  }
  if (const Track* const changed = ChangedTrack()) {
    const bool isVideo = video_ && changed == &*video_;
    throw MediaError(MediaError::Kind::kFailed,
                     std::string(isVideo ? "its video" : "its audio") + " has changed its form",
                     maskedSource_);
  }
  // The demuxer may have given what it still had since the call that was ended.
  const bool wasEnded = deadline_.expired() || result == AVERROR_EXIT;
  const bool isDatagrams = connection_ && address_.isDatagrams();
  if (wasEnded && !deadline_.cancelled() && isDatagrams) {
    connection_->Resume();
    ++silences_;
    canGoOn_ = silences_ <= kMaxSilences;
    Fail(result, false);
  }
  silences_ = 0;
  if (result == AVERROR_EOF && fragments_ && fragments_->ended()) {
    ReadOnWithNextDemuxer();
    return;
  }
  if (!gaveInRepetition_ && repeats_ == 0 && !deadline_.ShouldStop() && LiesBehindItsData()) {
    FailForItsIndex();
  }
  // Containers report the end of a connection that broke as an ordinary end.
  if (result != AVERROR_EOF || deadline_.expired() || deadline_.cancelled()) {
    Fail(result, false);
  }
  if (input_->pb != nullptr && input_->pb->error < 0 && input_->pb->error != AVERROR_EOF) {
    Fail(input_->pb->error, false);
  }
  FinishRepetition();
}

// The one whose stream is announced in another form than the one it was opened in.
const MediaReader::Track* MediaReader::ChangedTrack() const {
  for (const std::optional<Track>* track : {&video_, &audio_}) {
    // Of a transport stream a stream's id is its PID.
    if (*track && programs_.HasChanged(input_->streams[(*track)->streamIndex]->id)) {
      return &**track;
    }
  }
  return nullptr;
}

void MediaReader::HandlePacket(ffmpeg::Packet packet) {
  const bool isVideo = video_ && packet->stream_index == video_->streamIndex;
  const bool isAudio = audio_ && packet->stream_index == audio_->streamIndex;
  if (!isVideo && !isAudio) {
    FollowOther(*packet);
    return;
  }
  Track& track = isVideo ? *video_ : *audio_;
  const AVRational unit = input_->streams[track.streamIndex]->time_base;
  const Time duration = DurationOf(*packet);
  track.failover.OnPacket(duration);
  const std::optional<Time> dts = ffmpeg::ToTime(packet->dts, unit);
  if (IsRepeated(track, dts)) {
    return;
  }
  const SourceClock::Mapped mapped =
      clock_->Map(track.clockStream, {dts, ffmpeg::ToTime(packet->pts, unit), duration});
  packet->dts = mapped.dts;
  packet->pts = mapped.pts.value_or(AV_NOPTS_VALUE);
  packet->duration = duration;
  packet->time_base = ffmpeg::kTimeUnit;
  if (isVideo) {
    track.jumps += mapped.discontinuity ? 1 : 0;
    packet->pos = track.jumps;  // goes through the decoder with its frame
    DecodeVideo(*packet);
  } else {
    GiveAudioPacket(*packet, mapped.discontinuity);
    DecodeAudio(*packet);
  }
  if (track.decoder->lost()) {
    throw MediaError(MediaError::Kind::kFailed,
                     std::string(isVideo ? "its video" : "its audio") +
                         " can no longer be decoded; it may have changed its form",
                     maskedSource_);
  }
}

void MediaReader::DecodeVideo(const AVPacket& packet) {
  const auto sink = [this](ffmpeg::Frame frame) { GivePicture(std::move(frame)); };
  const AVStream& stream = *input_->streams[video_->streamIndex];
  if (!video_->decoder->Fits(stream)) {
    video_->decoder->Drain(sink);
    try {
      video_->decoder.emplace(stream, settings_.options.decoderThreads);
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

void MediaReader::GivePicture(ffmpeg::Frame frame) {
  // The container's word on the shape of the pixels holds over the stream's.
  frame->sample_aspect_ratio =
      av_guess_sample_aspect_ratio(input_.get(), input_->streams[video_->streamIndex], frame.get());
  const ItemTimes::Span span =
      video_->times.Frame(GivenTime(frame->best_effort_timestamp),
                          frame->pkt_duration > 0 ? frame->pkt_duration : video_->frameDuration,
                          frame->pkt_pos >= 0 ? frame->pkt_pos : video_->jumps);
  DecodedFrame picture;
  picture.start = span.start;
  picture.duration = span.duration;
  picture.discontinuity = span.discontinuity;
  picture.orientation = OrientationOf(*frame);
  picture.frame = std::move(frame);
  gaveInRepetition_ = true;
  if (watch_) {
    watch_->Picture(VideoWatch::Clock::now());
  }
  ready_.emplace_back(std::move(picture));
}

// What a frame says holds for those after it, up to a keyframe that says nothing: H.264 has it in
// its keyframes only. It holds over what the container says.
Orientation MediaReader::OrientationOf(const AVFrame& frame) {
  const std::optional<Orientation> announced = AnnouncedOrientation(frame);
  if (announced || frame.key_frame != 0) {
    video_->orientation = announced;
  }
  const AVStream& stream = *input_->streams[video_->streamIndex];
  return video_->orientation ? *video_->orientation
                             : AnnouncedOrientation(stream).value_or(Orientation{});
}

void MediaReader::GiveAudioPacket(const AVPacket& packet, bool discontinuity) {
  AudioPacket item;
  item.packet = ffmpeg::RefPacket(packet);
  item.start = audio_->times.Packet(packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts);
  item.packet->pts = item.start;
  item.packet->dts = item.start;
  item.duration = packet.duration;
  item.discontinuity = discontinuity;
  gaveInRepetition_ = true;
  ready_.emplace_back(std::move(item));
}

void MediaReader::GiveSamples(ffmpeg::Frame frame) {
  if (frame->sample_rate <= 0 || frame->nb_samples <= 0) {
    return;
  }
  const ItemTimes::Span span =
      audio_->times.Samples(GivenTime(frame->best_effort_timestamp),
                            av_rescale(frame->nb_samples, kSecond, frame->sample_rate));
  AudioSamples samples;
  samples.start = span.start;
  samples.duration = span.duration;
  samples.frame = std::move(frame);
  ready_.emplace_back(std::move(samples));
}

// The end of the source: what the decoders still hold comes out, then it ends or begins again.
void MediaReader::FinishRepetition() {
  if (video_) {
    video_->decoder->Drain([this](ffmpeg::Frame frame) { GivePicture(std::move(frame)); });
  }
  if (audio_ && settings_.decodeAudio) {
    audio_->decoder->Drain([this](ffmpeg::Frame frame) { GiveSamples(std::move(frame)); });
  }
  if (!mayRepeat() || (!gaveInRepetition_ && info_.kind != SourceKind::kFile)) {
    ended_ = true;
    return;
  }
  // The demuxer knows the former content only.
  const std::optional<FileState> now = ReadFileState();
  if (file_ && now && *now != *file_) {
    throw MediaError(MediaError::Kind::kFailed, "the file was written again", maskedSource_);
  }
  // A source that gave nothing would begin again without end.
  if (!gaveInRepetition_) {
    throw MediaError(MediaError::Kind::kFailed, "nothing in it can be read", maskedSource_);
  }
  Rewind();
}

std::optional<MediaReader::FileState> MediaReader::ReadFileState() const {
  constexpr std::string_view kScheme = "file:";
  const std::string_view name = address_.name();
  const std::filesystem::path path = name.substr(name.starts_with(kScheme) ? kScheme.size() : 0);
  std::error_code failure;
  if (address_.isRemote() || !std::filesystem::is_regular_file(path, failure)) {
    return std::nullopt;
  }
  FileState state;
  state.written = std::filesystem::last_write_time(path, failure);
  if (!failure) {
    state.size = std::filesystem::file_size(path, failure);
  }
  return failure ? std::nullopt : std::optional(state);
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
  gaveInRepetition_ = false;
  ++repeats_;
}

std::uint64_t MediaReader::damagedPackets() const {
  return (video_ ? video_->decoder->damagedPackets() : 0) +
         (audio_ ? audio_->decoder->damagedPackets() : 0);
}

}  // namespace host
