#include "render/overlay.h"

#include <algorithm>
#include <array>

#include "render/kernels/drawing_kernels.h"

namespace {

PlaneBounds InkOf(const std::uint8_t* alpha, std::int32_t width, std::int32_t height) {
  PlaneBounds ink{width, height, 0, 0};
  for (std::int32_t row = 0; row < height; ++row) {
    const std::uint8_t* begin = alpha + static_cast<std::ptrdiff_t>(row) * width;
    const std::uint8_t* end = begin + width;
    const auto inked = [](std::uint8_t a) { return a != 0; };
    const std::uint8_t* first = std::find_if(begin, end, inked);
    if (first == end) {
      continue;
    }
    const std::uint8_t* last = end;
    while (last[-1] == 0) {
      --last;
    }
    ink.left = std::min(ink.left, static_cast<std::int32_t>(first - begin));
    ink.right = std::max(ink.right, static_cast<std::int32_t>(last - begin));
    ink.top = std::min(ink.top, row);
    ink.bottom = row + 1;
  }
  return ink.bottom == 0 ? PlaneBounds{} : ink;
}

constexpr std::uint8_t Clamp8(std::int64_t value, std::int64_t least, std::int64_t most) {
  return static_cast<std::uint8_t>(std::clamp(value, least, most));
}

// The part of one plane that is blended: `columns` x `rows` samples that start at (overlayX,
// overlayY) of the overlay's plane and at (canvasX, canvasY) of the canvas's.
struct Placement {
  std::int64_t canvasX;
  std::int64_t canvasY;
  std::int64_t overlayX;
  std::int64_t overlayY;
  std::int64_t columns;
  std::int64_t rows;
};

// Leaves away what lies outside the ink.
Placement Narrow(Placement place, const PlaneBounds& ink) {
  const std::int64_t right = std::min<std::int64_t>(place.overlayX + place.columns, ink.right);
  const std::int64_t bottom = std::min<std::int64_t>(place.overlayY + place.rows, ink.bottom);
  const std::int64_t skipX = std::max<std::int64_t>(ink.left - place.overlayX, 0);
  const std::int64_t skipY = std::max<std::int64_t>(ink.top - place.overlayY, 0);
  place.canvasX += skipX;
  place.canvasY += skipY;
  place.overlayX += skipX;
  place.overlayY += skipY;
  place.columns = std::max<std::int64_t>(right - place.overlayX, 0);
  place.rows = std::max<std::int64_t>(bottom - place.overlayY, 0);
  return place;
}

void BlendPlane(const Placement& place, const std::uint8_t* over, const std::uint8_t* alpha,
                std::int32_t overlayStride, std::uint8_t* canvas, std::int32_t canvasStride) {
  const std::int64_t from = place.overlayY * overlayStride + place.overlayX;
  kernels::CurrentKernels().blend(canvas + place.canvasY * canvasStride + place.canvasX,
                                  canvasStride, static_cast<std::int32_t>(place.columns),
                                  static_cast<std::int32_t>(place.rows), over + from, alpha + from,
                                  overlayStride);
}

}  // namespace

void Yv12Overlay::Resize(std::int32_t w, std::int32_t h) {
  if (w == width_ && h == height_) {
    return;
  }
  width_ = w;
  height_ = h;
  bytes_.assign(2 * LumaBytes() + 3 * ChromaBytes(), 0);
  lumaInk_ = {0, 0, w, h};
  chromaInk_ = {0, 0, w / 2, h / 2};
}

void Yv12Overlay::MeasureInk() {
  lumaInk_ = InkOf(Alpha(), width_, height_);
  chromaInk_ = InkOf(ChromaAlpha(), width_ / 2, height_ / 2);
}

void ConvertArgbToOverlay(const std::uint8_t* pixels, std::ptrdiff_t stride, Yv12Overlay& overlay) {
  // How much each pixel around a block of 2x2 counts for the block's chroma.
  static constexpr std::array<std::array<std::int32_t, 4>, 4> kWeights{
      {{0, 1, 1, 0}, {1, 3, 3, 1}, {1, 3, 3, 1}, {0, 1, 1, 0}}};
  const std::int32_t w = overlay.width();
  const std::int32_t h = overlay.height();
  if (h < 2) {
    return;
  }
  for (std::int32_t by = 0; by < h / 2; ++by) {
    for (std::int32_t bx = 0; bx < w / 2; ++bx) {
      std::int64_t weight = 0;
      std::int64_t p = 0;
      std::int64_t q = 0;
      for (std::int32_t i = 0; i < 4; ++i) {
        const std::int32_t row = std::clamp(2 * by - 1 + i, 0, h - 1);
        for (std::int32_t k = 0; k < 4; ++k) {
          const std::int32_t column = std::clamp(2 * bx - 1 + k, 0, w - 1);
          const std::uint8_t* pixel = pixels + row * stride + std::ptrdiff_t{column} * 4;
          const Ycbcr88 colour = RgbToYcbcr601(pixel[0], pixel[1], pixel[2]);
          const std::int32_t alpha = pixel[3];
          if ((i == 1 || i == 2) && (k == 1 || k == 2)) {
            const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(row) * w + column;
            overlay.Luma()[at] = Clamp8((colour.y + 128) >> 8, 16, 235);
            overlay.Alpha()[at] = pixel[3];
          }
          const std::int64_t weighted = std::int64_t{kWeights[i][k]} * alpha;
          weight += weighted;
          p += weighted * colour.p;
          q += weighted * colour.q;
        }
      }
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (w / 2) + bx;
      overlay.FirstChroma()[at] = weight == 0 ? 128 : Clamp8((p / weight + 128) >> 8, 16, 240);
      overlay.SecondChroma()[at] = weight == 0 ? 128 : Clamp8((q / weight + 128) >> 8, 16, 240);
      // The weights are those of the inner and the edge alphas in the chroma's opacity as well.
      overlay.ChromaAlpha()[at] = static_cast<std::uint8_t>((weight + 10) / 20);
    }
  }
  overlay.MeasureInk();
}

void BlendOverlay(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                  const Yv12Picture& canvas) {
  const std::int64_t x0 = std::max(left, 0);
  const std::int64_t y0 = std::max(top, 0);
  const std::int64_t x1 =
      std::min<std::int64_t>(std::int64_t{left} + overlay.width(), canvas.width);
  const std::int64_t y1 =
      std::min<std::int64_t>(std::int64_t{top} + overlay.height(), canvas.height);
  if (x1 <= x0 || y1 <= y0) {
    return;
  }
  const Placement luma{x0, y0, x0 - left, y0 - top, x1 - x0, y1 - y0};
  BlendPlane(Narrow(luma, overlay.lumaInk()), overlay.Luma(), overlay.Alpha(), overlay.width(),
             canvas.Y(), canvas.width);
  const Placement chroma =
      Narrow({x0 / 2, y0 / 2, (x0 - left) / 2, (y0 - top) / 2, (x1 - x0) / 2, (y1 - y0) / 2},
             overlay.chromaInk());
  BlendPlane(chroma, overlay.FirstChroma(), overlay.ChromaAlpha(), overlay.width() / 2, canvas.V(),
             canvas.ChromaWidth());
  BlendPlane(chroma, overlay.SecondChroma(), overlay.ChromaAlpha(), overlay.width() / 2, canvas.U(),
             canvas.ChromaWidth());
}
