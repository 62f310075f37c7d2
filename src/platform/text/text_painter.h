// TextPainter draws a UTF-16 string onto a clear colour; PaintedText is the result before it
// becomes pixels.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

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
// Borrows memory from the painters' shared font library, so that painters that work one after the
// other draw into the same few pages, which stay in the cache. Valid until its painter paints again
// or is destroyed. Used by one thread at a time.
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

  // Whether each pixel is given by its coverage and the table.
  bool IsCoverage() const { return colours_ != nullptr; }
  // First byte of the top row, rows Stride() bytes apart; null when nothing was drawn. These and
  // the table are valid when IsCoverage() is true.
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

// Left, right and centre of the bitmap, whatever the direction of the script.
enum class TextAlignment { kNear, kFar, kCentre };

// One painting. The text is laid out in the rectangle (0, 0, width, height) from the top, each line
// aligned by itself, and composited source-over onto the clear colour.
struct TextPainting {
  std::u16string_view text;
  int width = 0;   // pixels, 1 to TextPainter::kMaxSide
  int height = 0;  // pixels, 1 to TextPainter::kMaxSide
  // A * 2^24 + R * 2^16 + G * 2^8 + B. The alpha of the text colour applies to colour glyphs too.
  std::uint32_t textColour = 0xFFFFFFFF;
  std::uint32_t clearColour = 0;
  TextAlignment alignment = TextAlignment::kNear;
  // True: wrapped by words (a word longer than a line by characters), with an ellipsis at the end
  // of what fits. False: one line for each paragraph, cut at the edges.
  bool wrap = true;
  // The layout is scaled by this about the centre of the bitmap.
  double scaleX = 1.0;
  double scaleY = 1.0;
};

// Paints text with shaping, bidirectional order and fallback to other fonts for the scripts that
// its font lacks, colour emoji included; glyphs are antialiased in grey. A point is 1/72 inch, at
// 96 dots per inch: 4/3 pixels.
//
// Owned by the caller that needs the text; used by one thread at a time, but made, used and
// destroyed on any. Painters share the fonts and the glyphs already drawn of a process-wide font
// library that has a lock of its own, so that any number of painters may work at the same time.
//
// Only lack of memory is an error: what cannot be painted is left clear.
//
// The text libraries behind it cannot be unloaded and loaded again in one process: they are kept
// loaded from the first use on, even when the library that holds this code is unloaded.
class TextPainter {
 public:
  static constexpr int kMaxSide = 32767;

  // privateFontFile: bare name of the font file to use when a family is not installed. It is
  // searched for now: in the current directory, beside the library or program that holds this code,
  // beside the program, in the folders of installed data. Without a usable one there is no
  // fallback.
  explicit TextPainter(const std::string& privateFontFile);
  ~TextPainter();
  TextPainter(const TextPainter&) = delete;
  TextPainter& operator=(const TextPainter&) = delete;

  // The family when exactly it is installed (no alias or nearest match; case is ignored), otherwise
  // the first family of the private font file, regular style, size in points of at least 1. False
  // when there is neither: the former font and size stay, none at first.
  bool SetFont(std::u16string_view family, int points);
  // Family in use, UTF-8; empty without a font.
  const std::string& FontFamily() const;

  // No text (width 0) when a side is out of range. Without a font nothing is drawn. An unpaired
  // surrogate or a NUL is painted as U+FFFD; of a text of many thousand characters only the start
  // is painted.
  PaintedText Paint(const TextPainting& painting);

  // Characters of the last painting for which no font has a glyph: they show as boxes.
  int CountMissingGlyphs() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace os
