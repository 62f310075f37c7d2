// Drawn text onto the clear colour, in straight ARGB.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/text/text_painter.h"

namespace os {

// From A * 2^24 + R * 2^16 + G * 2^8 + B.
BgraPixel ToBgra(std::uint32_t argb);

// colour with its alpha, times coverage / 255, source-over onto under; rounded to nearest. When
// both are fully transparent, the result is under, unchanged.
BgraPixel CompositePixel(const BgraPixel& under, const BgraPixel& colour, std::uint8_t coverage);

// The pixel of each coverage, for one text colour on one clear colour.
void FillCoverageTable(std::uint32_t textColour, std::uint32_t clearColour, CoverageTable& table);

// A view of rows of pixels, which it does not own.
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
// One byte of coverage for each pixel. The target already has the clear colour.
void CompositeCoverage(PixelRows<const std::uint8_t> coverage, const CoverageTable& colours,
                       const PixelBounds& bounds, PixelRows<std::uint8_t> target);
// Native 32-bit pixels A, R, G, B, colours multiplied by alpha; opacity multiplies their alpha.
void CompositeColour(PixelRows<const std::uint8_t> premultiplied, std::uint8_t opacity,
                     std::uint32_t clearColour, const PixelBounds& bounds,
                     PixelRows<std::uint8_t> target);

}  // namespace os
