#include "host/channel/video/box_scaler.h"

#include <libyuv/scale.h>

extern "C" {
#include <libavutil/frame.h>
}

namespace host {

std::optional<BoxScaler> BoxScaler::For(AVPixelFormat format, int width, int height, int toWidth,
                                        int toHeight) {
  // At other reductions the library does not round, which darkens.
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

}  // namespace host
