// A second implementation of everything that is drawn into a frame, for comparison. Sample by
// sample in plain loops over the canvas, in the order of the passes; nothing of it is shared with
// the production code. Only texts are drawn by the production labels: their look is the text
// library's.
#pragma once

#include <cstdint>
#include <span>

#include "render/drawing_engine.h"

namespace reference {

// A canvas of width x height pixels, not owned. Positions are 64 bits wide; what lies outside the
// canvas is not drawn, and an odd last column or row has no chroma.
class Painter {
 public:
  Painter(std::uint8_t* canvas, std::int64_t width, std::int64_t height)
      : canvas_(canvas), width_(width), height_(height) {}

  void CopyPicture(const std::uint8_t* source, std::int64_t w, std::int64_t h, std::int64_t x,
                   std::int64_t y);
  // False when a bar does not lie inside the canvas; those before it are drawn.
  bool DrawSelection(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h);
  // The meter of a window.
  void DrawMeter(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h,
                 std::span<const float> levels, std::span<const float> peaks, bool alarm);

 private:
  enum Chroma { kV, kU };

  std::uint8_t* Luma(std::int64_t x, std::int64_t y) const;
  std::uint8_t* Sample(Chroma plane, std::int64_t x, std::int64_t y) const;
  template <typename Draw>
  void ForEachPixel(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h,
                    const Draw& draw) const;
  void Blend(std::int64_t x, std::int64_t y, int luma, int lumaOpacity, int v, int u,
             int chromaOpacity) const;
  void FillRed(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h) const;
  void DrawBar(std::int64_t left, std::int64_t bottom, std::int64_t width, std::int64_t lit,
               std::int64_t length) const;

  std::uint8_t* const canvas_;
  const std::int64_t width_;
  const std::int64_t height_;
};

// A whole frame on a canvas that is shown at the display aspect. False when a selection does not
// fit: the windows are drawn then, the selections up to it, and no meter.
bool DrawMosaic(Compose& labels, std::span<const WindowState> windows,
                std::span<const WindowOverlays> overlays, const Yv12Picture& canvas,
                const qorp::Ratio& displayAspect);

}  // namespace reference
