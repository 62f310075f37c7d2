#include "host/output/video_encoder.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include "host/config/diagnostics.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"
#include "util/yv12.h"

namespace host {

namespace {

bool Offers(const AVCodecContext& context, const char* option) {
  return context.priv_data != nullptr &&
         av_opt_find(context.priv_data, option, nullptr, 0, 0) != nullptr;
}

// Presets and tunes are names that the encoder lists, or any text that it checks by itself.
bool OffersValue(const AVCodecContext& context, const char* name, const std::string& value) {
  const AVOption* const option =
      context.priv_data != nullptr ? av_opt_find(context.priv_data, name, nullptr, 0, 0) : nullptr;
  const bool isNumber = value.find_first_not_of("0123456789") == std::string::npos;
  return option != nullptr &&
         (option->type == AV_OPT_TYPE_STRING || isNumber ||
          (option->unit != nullptr &&
           av_opt_find(context.priv_data, value.c_str(), option->unit, 0, 0) != nullptr));
}

// Over a second; 0: no limit.
void LimitRate(AVCodecContext& codec, std::int64_t rate) {
  codec.rc_max_rate = rate;
  codec.rc_buffer_size = static_cast<int>(std::min<std::int64_t>(rate, 1'000'000'000));
}

int FramesToKeyframe(const VideoEncoder::Settings& settings) {
  const Time frame = FrameDuration(settings.frameRate);
  return static_cast<int>(
      std::clamp<Time>((settings.keyFrameInterval + frame / 2) / frame, 1, 10'000));
}

}  // namespace

const AVCodec* FindVideoEncoder(const std::string& name) {
  const AVCodec* encoder = name == "h264" ? avcodec_find_encoder_by_name("libx264") : nullptr;
  if (encoder == nullptr) {
    encoder = ffmpeg::FindEncoder(name);
  }
  return encoder != nullptr && encoder->type == AVMEDIA_TYPE_VIDEO ? encoder : nullptr;
}

std::optional<std::string> NearestVideoCodec(const std::string& name) {
  std::vector<std::string> names;
  void* position = nullptr;
  while (const AVCodec* const codec = av_codec_iterate(&position)) {
    if (av_codec_is_encoder(codec) != 0 && codec->type == AVMEDIA_TYPE_VIDEO) {
      names.emplace_back(avcodec_get_name(codec->id));
      names.emplace_back(codec->name);
    }
  }
  return config::NearestName(name, names);
}

Time KeyframeInterval(const VideoEncoder::Settings& settings) {
  return FrameStart(FramesToKeyframe(settings), settings.frameRate);
}

VideoEncoder::VideoEncoder(const Settings& settings)
    : frameDuration_(FrameDuration(settings.frameRate)) {
  const AVCodec* const encoder = FindVideoEncoder(settings.codec);
  if (encoder == nullptr) {
    throw ffmpeg::Error(AVERROR_ENCODER_NOT_FOUND, "cannot encode video as", settings.codec);
  }
  codec_.reset(avcodec_alloc_context3(encoder));
  if (!codec_) {
    throw std::bad_alloc();
  }
  codec_->width = settings.width;
  codec_->height = settings.height;
  codec_->pix_fmt = AV_PIX_FMT_YUV420P;
  codec_->framerate = {settings.frameRate.num, settings.frameRate.den};
  // One tick for each frame: the bit stream then announces the true frame rate.
  codec_->time_base = {settings.frameRate.den, settings.frameRate.num};
  codec_->sample_aspect_ratio = {settings.pixelAspect.num, settings.pixelAspect.den};
  codec_->color_range = AVCOL_RANGE_MPEG;
  codec_->colorspace = AVCOL_SPC_SMPTE170M;
  codec_->color_primaries = AVCOL_PRI_BT709;
  codec_->color_trc = AVCOL_TRC_BT709;
  codec_->chroma_sample_location = AVCHROMA_LOC_LEFT;
  codec_->gop_size = FramesToKeyframe(settings);
  codec_->thread_count = settings.threads;
  if (settings.globalHeader) {
    codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  }
  // A recording can be cut, and a stream joined, at every keyframe. Other encoders have no frames
  // that are shown before the keyframe they depend on.
  if (std::string_view(encoder->name).starts_with("libx26")) {
    codec_->flags |= AV_CODEC_FLAG_CLOSED_GOP;
  }
  if (settings.lowDelay) {
    codec_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    codec_->max_b_frames = 0;
  }
  if (settings.bitRate > 0) {
    codec_->bit_rate = settings.bitRate;
    LimitRate(*codec_, settings.bitRate);
  }

  ffmpeg::Options options;
  if (Offers(*codec_, "preset") && OffersValue(*codec_, "preset", settings.preset)) {
    options.Set("preset", settings.preset);
  } else if (Offers(*codec_, "preset") && settings.preset != Settings().preset) {
    throw ffmpeg::Error(AVERROR_OPTION_NOT_FOUND,
                        std::string(encoder->name) + " has no preset \"" + settings.preset + "\"");
  }
  if (!settings.profile.empty()) {
    options.Set("profile", settings.profile);
  }
  if (Offers(*codec_, "crf") && settings.bitRate <= 0) {
    options.Set("crf", std::to_string(settings.quality.value_or(20.0)));
    if (std::string_view(encoder->name).starts_with("libx26")) {
      LimitRate(*codec_, settings.maxRate);
    }
  } else if (settings.quality && settings.bitRate <= 0) {
    throw ffmpeg::Error(AVERROR_OPTION_NOT_FOUND,
                        std::string(encoder->name) + " has no quality; choose a bit rate");
  } else if (settings.bitRate <= 0) {
    // Encoders without a quality scale get a rate that suits the size of the canvas.
    codec_->bit_rate = static_cast<std::int64_t>(settings.width * settings.height *
                                                 settings.frameRate.value() * 0.15);
  }
  if (settings.lowDelay && OffersValue(*codec_, "tune", "zerolatency")) {
    options.Set("tune", "zerolatency");
  }
  if (!settings.sceneCuts && Offers(*codec_, "sc_threshold")) {
    options.Set("sc_threshold", "0");
  }
  if (Offers(*codec_, "forced-idr")) {
    options.Set("forced-idr", "1");
  }
  if (settings.maxDelay > 0 && !settings.lowDelay && Offers(*codec_, "x264-params")) {
    LimitDelay(settings, options);
  }
  if (Offers(*codec_, "x265-params")) {
    options.Set("x265-params", "log-level=error");  // it writes to the error stream by itself
  }
  ffmpeg::Check(avcodec_open2(codec_.get(), encoder, options.Exchange()),
                "cannot start the encoder", encoder->name);

  frame_ = ffmpeg::MakeFrame();
  frame_->format = AV_PIX_FMT_YUV420P;
  frame_->width = settings.width;
  frame_->height = settings.height;
  ffmpeg::Check(av_frame_get_buffer(frame_.get(), 0), "cannot make a picture to encode");
}

VideoEncoder::~VideoEncoder() {
  // libsvtav1 hangs when it is closed without having had a frame (FFmpeg 5.1).
  if (codec_ && lastFrame_ < 0 && encoderName() == "libsvtav1") {
    av_frame_make_writable(frame_.get());
    frame_->pts = 0;
    if (avcodec_send_frame(codec_.get(), frame_.get()) >= 0) {
      avcodec_send_frame(codec_.get(), nullptr);
      const ffmpeg::Packet packet = ffmpeg::MakePacket();
      while (avcodec_receive_packet(codec_.get(), packet.get()) >= 0) {
        av_packet_unref(packet.get());
      }
    }
  }
}

// libx264 holds back the longer of what it looks ahead and what it reorders, one frame more before
// a frame that refers to the next one, and one for each further thread unless all work on the same
// frame; on a machine with many processors these are most of a second.
void VideoEncoder::LimitDelay(const Settings& settings, ffmpeg::Options& options) {
  constexpr int kLookAhead = 10;  // of the preset "veryfast"
  constexpr int kReordered = 3;
  const int frames = static_cast<int>(settings.maxDelay / frameDuration_);
  const int processors = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  if (frames >= kLookAhead + kReordered) {
    options.Set("x264-params", "sync-lookahead=0");
    codec_->thread_count = std::clamp(frames - kLookAhead - kReordered + 1, 1, processors * 3 / 2);
    return;
  }
  codec_->thread_type = FF_THREAD_SLICE;
  const bool isDefault = settings.preset == Settings().preset;
  const int held = std::max(0, frames - 1);
  // With so few frames of lookahead, macroblock trees lower the quality of all frames.
  options.Set("x264-params",
              isDefault && held <= kReordered ? "sync-lookahead=0:mbtree=0" : "sync-lookahead=0");
  if (isDefault) {
    codec_->max_b_frames = std::min(held, kReordered);
    options.Set("rc-lookahead", std::to_string(held));
  }
}

ffmpeg::Parameters VideoEncoder::parameters() const {
  ffmpeg::Parameters parameters = ffmpeg::MakeParameters();
  ffmpeg::Check(avcodec_parameters_from_context(parameters.get(), codec_.get()),
                "cannot describe the encoded video");
  return parameters;
}

std::string VideoEncoder::encoderName() const {
  return codec_->codec->name;
}

void VideoEncoder::Encode(std::span<const std::uint8_t> yv12, Time start, const PacketSink& sink) {
  const int width = codec_->width;
  const int height = codec_->height;
  if (static_cast<std::int64_t>(yv12.size()) < qorp::PictureBytes(width, height)) {
    throw std::invalid_argument("the picture is smaller than the canvas");
  }
  // The encoder may still hold the former frame: then this gives a new buffer.
  ffmpeg::Check(av_frame_make_writable(frame_.get()), "cannot make a picture to encode");
  const qorp::ConstYv12Picture picture{yv12.data(), width, height};
  av_image_copy(frame_->data, frame_->linesize, picture.YuvData().data(),
                picture.YuvStrides().data(), AV_PIX_FMT_YUV420P, width, height);
  Encode(*frame_, start, sink);
}

void VideoEncoder::Encode(AVFrame& frame, Time start, const PacketSink& sink) {
  if (!firstStart_) {
    firstStart_ = start;
  }
  lastFrame_ = std::max(av_rescale_q(start - *firstStart_, ffmpeg::kTimeUnit, codec_->time_base),
                        lastFrame_ + 1);
  frame.pts = lastFrame_;
  // If encoded frames were counted, keyframes would move with every frame that was left out.
  if (!gridStart_) {
    gridStart_ = start;
  }
  const std::int64_t interval = (lastFrame_ + av_rescale_q(*firstStart_ - *gridStart_,
                                                           ffmpeg::kTimeUnit, codec_->time_base)) /
                                codec_->gop_size;
  const bool isKey = std::exchange(isForced_, false) || interval_ != interval;
  interval_ = interval;
  frame.pict_type = isKey ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  ffmpeg::Check(avcodec_send_frame(codec_.get(), &frame), "cannot encode a picture");
  Receive(sink);
}

void VideoEncoder::Finish(const PacketSink& sink) {
  if (lastFrame_ < 0) {
    return;
  }
  const int result = avcodec_send_frame(codec_.get(), nullptr);
  if (result != AVERROR_EOF) {
    ffmpeg::Check(result, "cannot finish encoding");
  }
  Receive(sink);
}

void VideoEncoder::Receive(const PacketSink& sink) {
  for (;;) {
    ffmpeg::Packet packet = ffmpeg::MakePacket();
    const int result = avcodec_receive_packet(codec_.get(), packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
      return;
    }
    ffmpeg::Check(result, "cannot encode a picture");
    av_packet_rescale_ts(packet.get(), codec_->time_base, ffmpeg::kTimeUnit);
    packet->time_base = ffmpeg::kTimeUnit;
    packet->pts += *firstStart_;
    packet->dts += *firstStart_;
    if (packet->duration <= 0) {
      packet->duration = frameDuration_;
    }
    sink(std::move(packet));
  }
}

}  // namespace host
