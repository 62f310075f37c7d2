#include "platform/text/drawing_surface.h"

#include <algorithm>
#include <cstddef>

namespace os {

void DrawingSurface::Prepare(Content content, int width, int height) {
  if (cairo_ != nullptr && content == content_ && width == width_ && height == height_) {
    return;
  }
  cairo_.reset();
  surface_.reset();
  const cairo_format_t format =
      content == Content::kCoverage ? CAIRO_FORMAT_A8 : CAIRO_FORMAT_ARGB32;
  content_ = content;
  stride_ = cairo_format_stride_for_width(format, width);
  width_ = width;
  height_ = height;
  const std::size_t bytes = static_cast<std::size_t>(stride_) * static_cast<std::size_t>(height);
  if (bytes > bytes_.size()) {
    bytes_.resize(bytes);
  }
  surface_.reset(
      cairo_image_surface_create_for_data(bytes_.data(), format, width, height, stride_));
  cairo_.reset(cairo_create(surface_.get()));
}

PixelBounds DrawingSurface::FindInk() const {
  PixelBounds ink = BoundsOfInk(Rows(), width_ * BytesPerPixel(), height_);
  ink.left /= BytesPerPixel();
  ink.right = (ink.right + BytesPerPixel() - 1) / BytesPerPixel();
  return ink;
}

void DrawingSurface::Clear(const PixelBounds& ink) {
  for (int y = ink.top; y < ink.bottom; ++y) {
    const std::ptrdiff_t left = std::ptrdiff_t{ink.left} * BytesPerPixel();
    std::fill_n(bytes_.data() + std::ptrdiff_t{y} * stride_ + left,
                (ink.right - ink.left) * BytesPerPixel(), std::uint8_t{0});
  }
}

}  // namespace os
