// Drawn text onto the clear colour, in straight ARGB.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/text/text_painter.h"

namespace os {

// Bytes B, G, R, A of a straight colour.
using BgraPixel = std::array<std::uint8_t, 4>;

// From A * 2^24 + R * 2^16 + G * 2^8 + B.
BgraPixel ToBgra(std::uint32_t argb);

// colour with its alpha, times coverage / 255, source-over onto under; rounded to nearest. Where
// nothing is opaque at all the pixel is under, unchanged.
BgraPixel CompositePixel(const BgraPixel& under, const BgraPixel& colour, std::uint8_t coverage);

// What each of the 256 coverages gives for one text colour on one clear colour.
class CoverageColours {
 public:
  void Set(std::uint32_t textColour, std::uint32_t clearColour);
  const BgraPixel& operator[](std::uint8_t coverage) const { return colours_[coverage]; }

 private:
  std::uint32_t textColour_ = 0;
  std::uint32_t clearColour_ = 0;
  std::array<BgraPixel, 256> colours_{};
};

// A view of rows of pixels that somebody else owns.
template <typename Byte>
struct PixelRows {
  Byte* first = nullptr;
  std::ptrdiff_t stride = 0;  // bytes

  Byte* Row(int y) const { return first + y * stride; }
};

// The smallest rectangle that holds every non-zero byte of width x height bytes.
PixelBounds BoundsOfInk(PixelRows<const std::uint8_t> bytes, int width, int height);

// Each function writes the pixels of bounds only.
void FillPixels(PixelRows<std::uint8_t> target, const PixelBounds& bounds, const BgraPixel& colour);
// One byte of coverage for each pixel. The target has the clear colour before.
void CompositeCoverage(PixelRows<const std::uint8_t> coverage, const CoverageColours& colours,
                       const PixelBounds& bounds, PixelRows<std::uint8_t> target);
// Native 32-bit pixels A, R, G, B, colours multiplied by alpha; opacity multiplies their alpha.
void CompositeColour(PixelRows<const std::uint8_t> premultiplied, std::uint8_t opacity,
                     std::uint32_t clearColour, const PixelBounds& bounds,
                     PixelRows<std::uint8_t> target);

}  // namespace os
