#include "host/channel/source/stream_decoder.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/ffmpeg/error.h"
#include "host/units.h"

namespace host {
namespace {

// A damaged header may ask for frames of any size: no memory is allocated beyond 8K.
constexpr std::int64_t kMaxPixels = std::int64_t{8192} * 4352;

}  // namespace

FrameDropper::FrameDropper(Ratio canvasRate)
    : rate_(canvasRate), period_(FrameDuration(canvasRate)), step_(period_) {}

bool FrameDropper::HasPlace(const AVPacket& packet) {
  if (packet.dts == AV_NOPTS_VALUE || packet.pts == AV_NOPTS_VALUE) {
    return true;
  }
  if (latest_) {
    const Time step = packet.dts - *latest_;
    step_ += ((step > 0 ? std::min(step, period_) : period_) - step_) / 4;
  }
  latest_ = packet.dts;
  // With a margin for rounded timestamps.
  const bool isTwiceAsFast = step_ <= period_ * 11 / 20;
  const Time offset = packet.pts - FrameStart(NearestFrame(packet.pts, rate_), rate_);
  return !isTwiceAsFast || std::abs(offset) <= step_ * 5 / 8;
}

StreamDecoder::StreamDecoder(const AVStream& stream, int threads, std::optional<Ratio> canvasRate) {
  const AVCodec* decoder = avcodec_find_decoder(stream.codecpar->codec_id);
  if (decoder == nullptr) {
    throw ffmpeg::Error(AVERROR_DECODER_NOT_FOUND, "cannot decode",
                        avcodec_get_name(stream.codecpar->codec_id));
  }
  const AVCodecParameters& parameters = *stream.codecpar;
  if (std::int64_t{parameters.width} * parameters.height > kMaxPixels) {
    throw ffmpeg::Error(AVERROR(EINVAL), "frames of " + std::to_string(parameters.width) + "x" +
                                             std::to_string(parameters.height) +
                                             " pixels are larger than 8192x4352");
  }
  codec_.reset(avcodec_alloc_context3(decoder));
  if (!codec_) {
    throw std::bad_alloc();
  }
  ffmpeg::Check(avcodec_parameters_to_context(codec_.get(), stream.codecpar), "cannot decode",
                decoder->name);
  codec_->pkt_timebase = AVRational{1, static_cast<int>(kSecond)};
  codec_->thread_count = threads;
  codec_->max_pixels = kMaxPixels;
  ffmpeg::Check(avcodec_open2(codec_.get(), decoder, nullptr), "cannot start the decoder",
                decoder->name);
  if (decoder->type == AVMEDIA_TYPE_VIDEO) {
    gate_.emplace(decoder->id);
    if (canvasRate) {
      dropper_.emplace(*canvasRate);
    }
  }
}

StreamDecoder::~StreamDecoder() = default;

bool StreamDecoder::Fits(const AVStream& stream) const {
  return stream.codecpar->codec_id == codec_->codec_id;
}

ffmpeg::Parameters StreamDecoder::Form() const {
  ffmpeg::Parameters form = ffmpeg::MakeParameters();
  ffmpeg::Check(avcodec_parameters_from_context(form.get(), codec_.get()), "cannot decode");
  return form;
}

void StreamDecoder::CountDamage() {
  ++damagedPackets_;
  ++damagedInARow_;
}

void StreamDecoder::Receive(const FrameSink& sink) {
  // One packet can be damaged in several places, with good frames between them.
  constexpr int kMaxErrors = 64;
  for (int errors = 0; errors < kMaxErrors;) {
    ffmpeg::Frame frame = ffmpeg::MakeFrame();
    const int result = avcodec_receive_frame(codec_.get(), frame.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
      return;
    }
    if (result == AVERROR(ENOMEM)) {
      throw std::bad_alloc();
    }
    if (result < 0) {
      CountDamage();
      ++errors;
      continue;
    }
    gaveFrames_ = true;
    damagedInARow_ = 0;
    damagedKeysInARow_ = 0;
    if (!gate_ || gate_->Lets(*frame)) {
      sink(std::move(frame));
    }
  }
}

void StreamDecoder::FollowStep(bool isKeyframe, const FrameSink& sink) {
  const bool toKeyframes = wanted_ == DecodeStep::kKeyframesOnly;
  const bool fromKeyframes = step_ == DecodeStep::kKeyframesOnly;
  if (wanted_ == step_ || (fromKeyframes && !isKeyframe)) {
    return;
  }
  if (toKeyframes) {
    Drain(sink);
    avcodec_flush_buffers(codec_.get());
  } else if (fromKeyframes && gate_) {
    gate_->Close();
  }
  step_ = wanted_;
  codec_->skip_loop_filter = step_ == DecodeStep::kFull                     ? AVDISCARD_DEFAULT
                             : step_ == DecodeStep::kUnreferencedUnfiltered ? AVDISCARD_NONREF
                                                                            : AVDISCARD_NONKEY;
}

void StreamDecoder::Decode(const AVPacket& packet, const FrameSink& sink) {
  const bool isKeyframe = (packet.flags & AV_PKT_FLAG_KEY) != 0;
  FollowStep(isKeyframe, sink);
  if (step_ != DecodeStep::kKeyframesOnly) {
    Send(packet, sink);
    return;
  }
  if (isKeyframe) {
    // Each keyframe is decoded as a stream of its own, so that the decoder does not hold it back.
    Send(packet, sink);
    Drain(sink);
    avcodec_flush_buffers(codec_.get());
  }
}

void StreamDecoder::Send(const AVPacket& packet, const FrameSink& sink) {
  const std::uint64_t damagedBefore = damagedPackets_;
  if (gate_) {
    gate_->Packet(packet);
    if (gate_->isOverdue()) {
      // Shows what the decoder itself holds back.
      codec_->flags |= AV_CODEC_FLAG_OUTPUT_CORRUPT;
      codec_->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    }
  }
  const bool isLeftOut = dropper_ && !dropper_->HasPlace(packet);
  codec_->skip_frame =
      isLeftOut || step_ == DecodeStep::kReferencedOnly ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
  int result = avcodec_send_packet(codec_.get(), &packet);
  if (result == AVERROR(EAGAIN)) {
    // The decoder takes no packet until the ready frames are received.
    Receive(sink);
    result = avcodec_send_packet(codec_.get(), &packet);
  }
  if (result == AVERROR(ENOMEM)) {
    throw std::bad_alloc();
  }
  if (result < 0) {
    CountDamage();
  }
  Receive(sink);
  if (damagedPackets_ > damagedBefore && (packet.flags & AV_PKT_FLAG_KEY) != 0) {
    ++damagedKeysInARow_;
  }
}

void StreamDecoder::Drain(const FrameSink& sink) {
  avcodec_send_packet(codec_.get(), nullptr);
  Receive(sink);
}

void StreamDecoder::Reset() {
  avcodec_flush_buffers(codec_.get());
  if (gate_) {
    gate_->Close();
    codec_->flags &= ~AV_CODEC_FLAG_OUTPUT_CORRUPT;
    codec_->flags2 &= ~AV_CODEC_FLAG2_SHOW_ALL;
  }
}

}  // namespace host
