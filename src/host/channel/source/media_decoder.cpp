#include "host/channel/source/media_decoder.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/media_info.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

// In a source whose timestamps may jump, a longer step forwards is a jump, not a gap.
constexpr Time kMaxGap = 10 * kSecond;

std::optional<Time> GivenTime(std::int64_t timestamp) {
  return timestamp != AV_NOPTS_VALUE ? std::optional<Time>(timestamp) : std::nullopt;
}

}  // namespace

MediaDecoder::Track::Track() = default;

Time MediaDecoder::origin() const {
  return ffmpeg::ToTime(input_.context().start_time, AVRational{1, AV_TIME_BASE}).value_or(0);
}

Time MediaDecoder::wrapPeriod() const {
  const bool hasVideo = has(TrackKind::kVideo);
  return WrapPeriod(input_.stream(hasVideo ? TrackKind::kVideo : TrackKind::kAudio));
}

void MediaDecoder::StartClock() {
  const AVFormatContext& context = input_.context();
  const bool mayJump =
      (context.iformat->flags & AVFMT_TS_DISCONT) != 0 || input_.kind() != SourceKind::kFile;
  clock_.emplace(mayJump ? std::optional(kMaxGap) : std::nullopt,
                 ffmpeg::ToTime(context.start_time, AVRational{1, AV_TIME_BASE}));
}

void MediaDecoder::Start(TrackKind kind, const AVStream& stream, Time frameDuration) {
  std::optional<Track>& started = track(kind);
  started.emplace();
  try {
    started->decoder.emplace(stream, settings_.options.decoderThreads, settings_.canvasRate);
  } catch (...) {
    started.reset();
    throw;
  }
  started->clockStream = clock_->AddStream(WrapPeriod(stream));
  started->frameDuration = frameDuration;
}

void MediaDecoder::Replace(TrackKind kind, const AVStream& stream) {
  Track& replaced = *track(kind);
  if (kind == TrackKind::kVideo) {
    replaced.decoder->Drain([&](ffmpeg::Frame frame) { GiveFrame(replaced, std::move(frame)); });
  }
  MakeDecoder(replaced, stream);
  clock_->ReplaceStream(replaced.clockStream, WrapPeriod(stream));
}

void MediaDecoder::SetStep(DecodeStep step) {
  step_ = step;
  if (std::optional<Track>& video = track(TrackKind::kVideo)) {
    video->decoder->SetStep(step);
  }
}

void MediaDecoder::MakeDecoder(Track& track, const AVStream& stream) {
  try {
    track.decoder.emplace(stream, settings_.options.decoderThreads, settings_.canvasRate);
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      track.decoder->SetStep(step_);
    }
  } catch (const ffmpeg::Error& error) {
    input_.Fail(MediaError::Kind::kFailed, error.what());
  }
}

void MediaDecoder::Decode(TrackKind kind, ffmpeg::Packet packet, Time duration) {
  Track& decoded = *track(kind);
  const bool isVideo = kind == TrackKind::kVideo;
  const AVRational unit = input_.stream(kind).time_base;
  const SourceClock::Mapped mapped =
      clock_->Map(decoded.clockStream,
                  {ffmpeg::ToTime(packet->dts, unit), ffmpeg::ToTime(packet->pts, unit), duration});
  packet->dts = mapped.dts;
  packet->pts = mapped.pts.value_or(AV_NOPTS_VALUE);
  packet->duration = duration;
  packet->time_base = ffmpeg::kTimeUnit;
  if (isVideo) {
    decoded.jumps += mapped.discontinuity ? 1 : 0;
    packet->pos = decoded.jumps;  // passes through the decoder to the frame
    DecodeVideo(decoded, *packet);
  } else {
    GivePacket(decoded, *packet, mapped.discontinuity);
    DecodeAudio(decoded, *packet);
  }
  if (decoded.decoder->lost()) {
    input_.Fail(MediaError::Kind::kFailed,
                std::string("its ") + NameOf(kind) +
                    " can no longer be decoded; it may have changed its form");
  }
}

void MediaDecoder::DecodeVideo(Track& track, const AVPacket& packet) {
  const auto sink = [&](ffmpeg::Frame frame) { GiveFrame(track, std::move(frame)); };
  const AVStream& stream = input_.stream(TrackKind::kVideo);
  if (!track.decoder->Fits(stream)) {
    track.decoder->Drain(sink);
    MakeDecoder(track, stream);
  }
  if (track.decoder->Leaves(packet)) {
    return;
  }
  const auto decode = [&] { track.decoder->Decode(packet, sink); };
  if (inTurn_) {
    inTurn_(decode);
  } else {
    decode();
  }
}

void MediaDecoder::DecodeAudio(Track& track, const AVPacket& packet) {
  if (settings_.decodeAudio) {
    track.decoder->Decode(packet,
                          [&](ffmpeg::Frame frame) { GiveSamples(track, std::move(frame)); });
  }
}

void MediaDecoder::GiveFrame(Track& track, ffmpeg::Frame frame) {
  // The pixel aspect of the container takes precedence over that of the stream.
  frame->sample_aspect_ratio = av_guess_sample_aspect_ratio(
      &input_.context(), &input_.stream(TrackKind::kVideo), frame.get());
  const ItemTimes::Span span =
      track.times.Frame(GivenTime(frame->best_effort_timestamp),
                        frame->pkt_duration > 0 ? frame->pkt_duration : track.frameDuration,
                        frame->pkt_pos >= 0 ? frame->pkt_pos : track.jumps);
  DecodedFrame item;
  item.start = span.start;
  item.duration = span.duration;
  if (track.decoder->step() == DecodeStep::kKeyframesOnly) {
    // At least as long as the last gap: keyframes come at irregular intervals.
    const Time gap = track.latest ? span.start - *track.latest : 0;
    item.duration = std::clamp(gap, kKeyframeDuration, kMaxGap);
  }
  track.latest = span.start;
  item.discontinuity = span.discontinuity;
  item.orientation = OrientationOf(track, *frame);
  item.frame = std::move(frame);
  hasGiven_ = true;
  frameGiven_ = true;
  ++frames_;
  ready_.emplace_back(std::move(item));
}

// The orientation of a frame applies to those after it, up to a keyframe without one: H.264 has it
// in its keyframes only. It takes precedence over that of the container.
Orientation MediaDecoder::OrientationOf(Track& track, const AVFrame& frame) const {
  const std::optional<Orientation> announced = AnnouncedOrientation(frame);
  if (announced || frame.key_frame != 0) {
    track.orientation = announced;
  }
  return track.orientation
             ? *track.orientation
             : AnnouncedOrientation(input_.stream(TrackKind::kVideo)).value_or(Orientation{});
}

void MediaDecoder::GivePacket(Track& track, const AVPacket& packet, bool discontinuity) {
  AudioPacket item;
  item.packet = ffmpeg::RefPacket(packet);
  item.start = track.times.Packet(packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts);
  item.packet->pts = item.start;
  item.packet->dts = item.start;
  item.duration = packet.duration;
  item.discontinuity = discontinuity;
  hasGiven_ = true;
  ready_.emplace_back(std::move(item));
}

void MediaDecoder::GiveSamples(Track& track, ffmpeg::Frame frame) {
  if (frame->sample_rate <= 0 || frame->nb_samples <= 0) {
    return;
  }
  const ItemTimes::Span span =
      track.times.Samples(GivenTime(frame->best_effort_timestamp),
                          av_rescale(frame->nb_samples, kSecond, frame->sample_rate));
  AudioSamples item;
  item.start = span.start;
  item.duration = span.duration;
  item.frame = std::move(frame);
  ready_.emplace_back(std::move(item));
}

void MediaDecoder::Drain() {
  if (std::optional<Track>& video = track(TrackKind::kVideo)) {
    video->decoder->Drain([&](ffmpeg::Frame frame) { GiveFrame(*video, std::move(frame)); });
  }
  if (std::optional<Track>& audio = track(TrackKind::kAudio); audio && settings_.decodeAudio) {
    audio->decoder->Drain([&](ffmpeg::Frame frame) { GiveSamples(*audio, std::move(frame)); });
  }
}

void MediaDecoder::Restart() {
  for (std::optional<Track>& each : tracks_) {
    if (each) {
      each->decoder->Reset();
    }
  }
  clock_->Restart();
  hasGiven_ = false;
}

MediaItem MediaDecoder::Take() {
  MediaItem item = std::move(ready_.front());
  ready_.pop_front();
  return item;
}

bool MediaDecoder::waitsForKeyframes() const {
  const std::optional<Track>& video = track(TrackKind::kVideo);
  return video && (video->decoder->awaitsKeyframe() || step_ == DecodeStep::kKeyframesOnly);
}

std::uint64_t MediaDecoder::damagedPackets() const {
  std::uint64_t packets = 0;
  for (const std::optional<Track>& each : tracks_) {
    packets += each ? each->decoder->damagedPackets() : 0;
  }
  return packets;
}

}  // namespace host
