// Rendered text on its way into a picture: an ARGB bitmap becomes planes of colour and opacity,
// which are blended into the canvas on every frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "render/kernels/drawing_kernels.h"
#include "render/yv12.h"

// The converted form of a text bitmap of w x h pixels (both even), in one block of w*h*11/4 bytes:
//
//   plane           bytes         stride   content
//   alpha           w*h           w        opacity of each pixel
//   luma            w*h           w        16 to 235
//   first chroma    (w/2)*(h/2)   w/2      blended into the canvas's V plane
//   second chroma   (w/2)*(h/2)   w/2      blended into the canvas's U plane
//   chroma alpha    (w/2)*(h/2)   w/2      opacity of the chroma samples
//
// A text in one colour has no planes but the two opacities: its colour is that of the whole
// overlay. Blending it reads half as much memory, which is most of what a label costs.
//
// Owned by its text renderer, which keeps it between frames; used by the drawing thread only.
class Yv12Overlay {
 public:
  // One colour in studio range.
  struct Colour {
    std::uint8_t luma = 16;
    std::uint8_t firstChroma = 128;
    std::uint8_t secondChroma = 128;
  };

  // Takes the size of w x h pixels. Allocates only when the size changes; the planes are then zero
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
  // whole planes; MeasureInk narrows them to what is there, in the colours of the planes, SetInk to
  // what its caller knows, in one colour.
  const kernels::PlaneBounds& lumaInk() const { return lumaInk_; }
  const kernels::PlaneBounds& chromaInk() const { return chromaInk_; }
  void MeasureInk();
  void SetInk(const kernels::PlaneBounds& luma, const kernels::PlaneBounds& chroma,
              const Colour& colour);
  // Null: the planes have the colours.
  const Colour* colour() const { return colour_ ? &*colour_ : nullptr; }

 private:
  std::size_t LumaBytes() const { return static_cast<std::size_t>(width_) * height_; }
  std::size_t ChromaBytes() const { return static_cast<std::size_t>(width_ / 2) * (height_ / 2); }

  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  kernels::PlaneBounds lumaInk_;
  kernels::PlaneBounds chromaInk_;
  std::optional<Colour> colour_;
  std::vector<std::uint8_t> bytes_;
};

// Converts a 32-bit ARGB bitmap of the overlay's size (straight alpha; bytes blue, green, red,
// alpha; rows `stride` bytes apart, negative for a bottom-up bitmap) and measures its ink. A bitmap
// less than two pixels high converts nothing.
void ConvertArgbToOverlay(const std::uint8_t* pixels, std::ptrdiff_t stride, Yv12Overlay& overlay);

// Gives what blends like the overlay that ConvertArgbToOverlay makes of the same picture, for a
// fraction of its time: the pixels' colour is known and only their opacities are averaged.
void ConvertCoverageToOverlay(const kernels::CoverageBitmap& bitmap, Yv12Overlay& overlay);

// Blends the overlay into the canvas, its top left pixel at (left, top), as far as it lies inside.
// An odd left or top puts the chroma half a sample off.
void BlendOverlay(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                  const Yv12Picture& canvas);
