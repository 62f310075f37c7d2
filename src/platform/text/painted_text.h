// PaintedText: what a painter has drawn, before it becomes pixels.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace os {

class DrawingSurface;
class FontLibrary;

// Pixels, right and bottom exclusive.
struct PixelBounds {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;

  bool Empty() const { return left >= right || top >= bottom; }
  bool operator==(const PixelBounds&) const = default;
};

// Bytes B, G, R, A of a straight colour (not multiplied by alpha).
using BgraPixel = std::array<std::uint8_t, 4>;

// The colour of each of the 256 coverages that a glyph may have of a pixel, 0 being the clear
// colour.
using CoverageTable = std::array<BgraPixel, 256>;

// A text is drawn as coverage alone, one byte a pixel, unless it has colour glyphs. A caller that
// can use the coverage as it is needs no pixels; WriteArgb makes them.
//
// Holds memory that the painters share: it is lent to the text until it is gone, so that painters
// that work one after the other all draw in the same few pages, which stay in the cache. Valid
// until its painter paints again or is gone. Used by one thread at a time.
class PaintedText {
 public:
  // No text: 0 pixels wide and high.
  PaintedText();
  ~PaintedText();
  PaintedText(PaintedText&& other) noexcept;
  PaintedText& operator=(PaintedText&&) = delete;

  int Width() const { return width_; }    // pixels
  int Height() const { return height_; }  // pixels
  // Every pixel outside has the clear colour.
  const PixelBounds& Ink() const { return ink_; }

  // Whether each pixel is what the table says of its coverage.
  bool IsCoverage() const { return colours_ != nullptr; }
  // First byte of the top row, rows Stride() bytes apart; null when the ink is empty. Of a text
  // that is coverage only, like the table.
  const std::uint8_t* Coverage() const;
  std::ptrdiff_t Stride() const;
  const CoverageTable& Colours() const { return *colours_; }

  // Writes Width() x Height() pixels B, G, R, A, straight, in rows `stride` bytes apart.
  void WriteArgb(std::uint8_t* to, std::ptrdiff_t stride) const;

 private:
  friend class TextPainter;

  int width_ = 0;
  int height_ = 0;
  PixelBounds ink_;
  std::uint32_t clearColour_ = 0;
  std::uint8_t opacity_ = 0;                // of colour glyphs
  const CoverageTable* colours_ = nullptr;  // the painter's; null for a text with colour glyphs
  std::shared_ptr<FontLibrary> library_;
  std::unique_ptr<DrawingSurface> surface_;  // null when nothing was drawn
};

}  // namespace os
