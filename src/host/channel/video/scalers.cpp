#include "host/channel/video/scalers.h"

#include <cstddef>
#include <stdexcept>

#include <libyuv/scale.h>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "host/ffmpeg/error.h"
#include "util/yv12.h"

namespace host {

namespace {

template <typename Sample>
qorp::Yv12Planes<Sample> PlanesOf(std::span<Sample> frame, int width, int height) {
  if (static_cast<std::int64_t>(frame.size()) < qorp::PictureBytes(width, height)) {
    throw std::invalid_argument("a frame is smaller than its size says");
  }
  return {frame.data(), width, height};
}

}  // namespace

std::optional<BoxScaler> BoxScaler::For(AVPixelFormat format, int width, int height, int toWidth,
                                        int toHeight) {
  // At other reductions the library does not round, which darkens.
  const auto isBy = [&](int factor) {
    return width == factor * toWidth && height == factor * toHeight;
  };
  const bool isExact = format == AV_PIX_FMT_YUV420P && (isBy(2) || isBy(4));
  return isExact ? std::optional(BoxScaler(toWidth, toHeight)) : std::nullopt;
}

void BoxScaler::Scale(const AVFrame& frame, PlaneView y, PlaneView u, PlaneView v) const {
  const auto scale = [&](int plane, PlaneView to, int subsampling) {
    libyuv::ScalePlane(frame.data[plane], frame.linesize[plane], frame.width / subsampling,
                       frame.height / subsampling, to.data, static_cast<int>(to.stride),
                       width_ / subsampling, height_ / subsampling, libyuv::kFilterBox);
  };
  scale(0, y, 1);
  scale(1, u, 2);
  scale(2, v, 2);
}

void FrameScaler::Scale(std::span<const std::uint8_t> from, int width, int height,
                        std::span<std::uint8_t> to, int toWidth, int toHeight) {
  if (!scaler_ || width != width_ || height != height_ || toWidth != toWidth_ ||
      toHeight != toHeight_) {
    scaler_.reset(sws_getContext(width, height, AV_PIX_FMT_YUV420P, toWidth, toHeight,
                                 AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!scaler_) {
      throw ffmpeg::Error(AVERROR(ENOMEM), "cannot change the size of a frame");
    }
    width_ = width;
    height_ = height;
    toWidth_ = toWidth;
    toHeight_ = toHeight;
  }
  const auto source = PlanesOf(from, width, height);
  const auto target = PlanesOf(to, toWidth, toHeight);
  ffmpeg::Check(sws_scale(scaler_.get(), source.YuvData().data(), source.YuvStrides().data(), 0,
                          height, target.YuvData().data(), target.YuvStrides().data()),
                "cannot change the size of a frame");
}

}  // namespace host
