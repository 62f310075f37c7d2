#include "host/channel/video/scalers.h"

#include <array>
#include <cstddef>
#include <stdexcept>

#include <libyuv/scale.h>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "host/ffmpeg/error.h"

namespace host {

namespace {

template <typename Byte>
std::array<Byte*, 3> PlanesOf(std::span<Byte> frame, int width, int height) {
  const std::size_t luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (frame.size() < luma * 3 / 2) {
    throw std::invalid_argument("a frame is smaller than its size says");
  }
  // Both chroma planes are scaled alike, so their order does not matter.
  return {frame.data(), frame.data() + luma, frame.data() + luma + luma / 4};
}

}  // namespace

std::optional<BoxScaler> BoxScaler::For(AVPixelFormat format, int width, int height, int toWidth,
                                        int toHeight) {
  // At other factors the library does not round, which makes frames darker.
  const auto isBy = [&](int factor) {
    return width == factor * toWidth && height == factor * toHeight;
  };
  const bool isExact = format == AV_PIX_FMT_YUV420P && (isBy(2) || isBy(4));
  return isExact ? std::optional(BoxScaler(toWidth, toHeight)) : std::nullopt;
}

void BoxScaler::Scale(const AVFrame& frame, Plane y, Plane u, Plane v) const {
  const auto scale = [&](int plane, Plane to, int subsampling) {
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
  const std::array<int, 3> sourceRows{width, width / 2, width / 2};
  const std::array<int, 3> targetRows{toWidth, toWidth / 2, toWidth / 2};
  ffmpeg::Check(sws_scale(scaler_.get(), source.data(), sourceRows.data(), 0, height, target.data(),
                          targetRows.data()),
                "cannot change the size of a frame");
}

}  // namespace host
