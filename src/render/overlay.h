// Rendered text on its way into a picture: an ARGB bitmap becomes planes of colour and opacity,
// which are blended into the canvas on every frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "render/yv12.h"

// A colour in 8.8 fixed point, BT.601 studio range.
struct Ycbcr88 {
  std::int32_t y;
  std::int32_t p;  // goes to the V plane
  std::int32_t q;  // goes to the U plane
};

// c0, c1, c2: the first three bytes of a bitmap pixel in memory order (blue, green, red), 0 to 255.
// The weight 0.257 falls on c0 and 0.098 on c2. That is how labels have always looked: white, grey
// and black come out the same either way.
constexpr Ycbcr88 RgbToYcbcr601(std::int32_t c0, std::int32_t c1, std::int32_t c2) {
  const std::int64_t b = c0;
  const std::int64_t g = c1;
  const std::int64_t r = c2;
  return {
      static_cast<std::int32_t>((4311745 * b + 8455717 * g + 1644167 * r + 32768) >> 16) + 4096,
      static_cast<std::int32_t>((-2483028 * b - 4882170 * g + 7365198 * r + 32768) >> 16) + 32768,
      static_cast<std::int32_t>((7365198 * b - 6174015 * g - 1191182 * r + 32768) >> 16) + 32768};
}

// Columns [left, right) and rows [top, bottom) of a plane; empty when they meet.
struct PlaneBounds {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
};

// The converted form of a text bitmap of w x h pixels (both even), in one block of w*h*11/4 bytes:
//
//   plane           bytes         stride   content
//   alpha           w*h           w        opacity of each pixel
//   luma            w*h           w        16 to 235
//   first chroma    (w/2)*(h/2)   w/2      blended into the canvas's V plane
//   second chroma   (w/2)*(h/2)   w/2      blended into the canvas's U plane
//   chroma alpha    (w/2)*(h/2)   w/2      opacity of the chroma samples
//
// Owned by its text renderer, which keeps it between frames; used by the drawing thread only.
class Yv12Overlay {
 public:
  // Makes room for w x h pixels. Allocates only when the size changes; the planes are then zero
  // (transparent).
  void Resize(std::int32_t w, std::int32_t h);

  std::int32_t width() const { return width_; }
  std::int32_t height() const { return height_; }

  std::uint8_t* Alpha() { return bytes_.data(); }
  std::uint8_t* Luma() { return Alpha() + LumaBytes(); }
  std::uint8_t* FirstChroma() { return Luma() + LumaBytes(); }
  std::uint8_t* SecondChroma() { return FirstChroma() + ChromaBytes(); }
  std::uint8_t* ChromaAlpha() { return SecondChroma() + ChromaBytes(); }
  const std::uint8_t* Alpha() const { return bytes_.data(); }
  const std::uint8_t* Luma() const { return Alpha() + LumaBytes(); }
  const std::uint8_t* FirstChroma() const { return Luma() + LumaBytes(); }
  const std::uint8_t* SecondChroma() const { return FirstChroma() + ChromaBytes(); }
  const std::uint8_t* ChromaAlpha() const { return SecondChroma() + ChromaBytes(); }

  // The parts of the planes that are blended: most of a label's bitmap is empty. Outside of them
  // nothing is opaque, and the planes hold what earlier texts have left. After Resize they are the
  // whole planes; MeasureInk narrows them to what is there, SetInk to what its caller knows.
  const PlaneBounds& lumaInk() const { return lumaInk_; }
  const PlaneBounds& chromaInk() const { return chromaInk_; }
  void MeasureInk();
  void SetInk(const PlaneBounds& luma, const PlaneBounds& chroma);

 private:
  std::size_t LumaBytes() const { return static_cast<std::size_t>(width_) * height_; }
  std::size_t ChromaBytes() const { return static_cast<std::size_t>(width_ / 2) * (height_ / 2); }

  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  PlaneBounds lumaInk_;
  PlaneBounds chromaInk_;
  std::vector<std::uint8_t> bytes_;
};

// Converts a 32-bit ARGB bitmap of the overlay's size (straight alpha; bytes blue, green, red,
// alpha; rows `stride` bytes apart, negative for a bottom-up bitmap) and measures its ink. A bitmap
// less than two pixels high converts nothing.
void ConvertArgbToOverlay(const std::uint8_t* pixels, std::ptrdiff_t stride, Yv12Overlay& overlay);

// A bitmap of the overlay's size in one colour: of a pixel only the coverage is known, 0 where
// there is no text.
struct CoverageBitmap {
  const std::uint8_t* coverage = nullptr;  // the top left pixel
  std::ptrdiff_t stride = 0;               // bytes from row to row
  PlaneBounds ink;                         // outside every coverage is 0
  std::array<std::uint8_t, 3> colour{};    // blue, green, red
  std::array<std::uint8_t, 3> clear{};     // of pixels that are transparent
  // Opacity of each coverage; the first is 0.
  std::array<std::uint8_t, 256> opacities{};
};

// Gives the ink that ConvertArgbToOverlay makes of the same picture, for a fraction of its time:
// the pixels' colour is known and only their opacities are averaged.
void ConvertCoverageToOverlay(const CoverageBitmap& bitmap, Yv12Overlay& overlay);

// Blends the overlay into the canvas, its top left pixel at (left, top), as far as it lies inside.
// An odd left or top puts the chroma half a sample off.
void BlendOverlay(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                  const Yv12Picture& canvas);
