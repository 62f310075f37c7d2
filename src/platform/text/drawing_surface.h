// DrawingSurface: memory that cairo draws text into.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/text/composite.h"
#include "platform/text/handles.h"

namespace os {

// Always all zero but for the ink of the text in it. Belongs to a font library, is lent to one text
// at a time; made ready, drawn into and destroyed with the library's lock held, because cairo finds
// the glyphs in its caches. The rest is done by whoever has the text, without a lock.
class DrawingSurface {
 public:
  enum class Content {
    kCoverage,  // one byte a pixel
    kColour,    // native 32-bit pixels A, R, G, B, colours multiplied by alpha
  };

  // Allocates only for a larger picture than ever before.
  void Prepare(Content content, int width, int height);
  cairo_t* Cairo() const { return cairo_.get(); }

  PixelRows<const std::uint8_t> Rows() const { return {bytes_.data(), stride_}; }
  PixelBounds FindInk() const;
  // Makes it all zero again.
  void Clear(const PixelBounds& ink);

  std::size_t Bytes() const { return bytes_.size(); }

 private:
  int BytesPerPixel() const { return content_ == Content::kCoverage ? 1 : 4; }

  std::vector<std::uint8_t> bytes_;
  SurfaceHandle surface_;  // refers to bytes_
  CairoHandle cairo_;      // refers to surface_
  Content content_ = Content::kCoverage;
  int stride_ = 0;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace os
