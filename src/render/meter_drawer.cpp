#include "render/meter_drawer.h"

#include <algorithm>
#include <array>

#include "render/kernels/bar_kernels.h"
#include "render/kernels/drawing_kernels.h"

namespace {

// A rectangle of pixels inside the canvas.
struct Area {
  std::int32_t left;
  std::int32_t top;
  std::int32_t width;
  std::int32_t height;
};

std::int32_t Narrow(std::int64_t place) {
  return static_cast<std::int32_t>(place);
}

std::int64_t Foot(const MeterPanel& panel) {
  return panel.y + panel.height - 1 - panel.margin;
}

// Whether everything but the peak markers lies on samples of the canvas, and the panel begins with
// whole chroma samples.
bool LiesInside(const MeterPanel& panel) {
  const std::int64_t right = panel.x + panel.width;
  const std::int64_t bottom = panel.y + panel.height;
  return panel.x >= 0 && panel.y >= 0 && panel.x % 2 == 0 && panel.y % 2 == 0 &&
         (right + 1) / 2 <= panel.canvas.ChromaWidth() &&
         (bottom + 1) / 2 <= panel.canvas.ChromaHeight() && Foot(panel) - panel.barLength + 1 >= 0;
}

constexpr auto kFramed = [] {
  std::array<std::uint8_t, 256> framed{};
  for (std::size_t i = 0; i < framed.size(); ++i) {
    framed[i] = Blend255(static_cast<std::uint8_t>(i), kFrameLuma, kFrameOpacity);
  }
  return framed;
}();

void DrawFrame(const MeterPanel& panel) {
  const std::ptrdiff_t stride = panel.canvas.width;
  std::uint8_t* corner = panel.canvas.Y() + panel.y * stride + panel.x;
  const auto line = [&](std::int64_t row) {
    kernels::CurrentKernels().blendConstant(corner + row * stride + 1, stride,
                                            std::max(panel.width - 2, 0), 1, kFrameLuma,
                                            kFrameOpacity);
  };
  line(0);
  line(panel.height - 1);
  for (std::int32_t row = 0; row < panel.height; ++row) {
    std::uint8_t& left = corner[row * stride];
    left = kFramed[left];
    std::uint8_t& right = corner[row * stride + panel.width - 1];
    right = kFramed[right];
  }
  line(panel.bandBottom - panel.y);
}

// The marker inside the canvas. Its chroma is blended once for each luma pixel: twice in a row and
// twice in a column, but for samples that only one row or column of it covers.
void BlendMarker(const Yv12Picture& canvas, const Area& marker) {
  const kernels::DrawingKernels& loops = kernels::CurrentKernels();
  loops.blendConstant(canvas.Y() + std::ptrdiff_t{marker.top} * canvas.width + marker.left,
                      canvas.width, marker.width, marker.height, kPeak.luma, kPeakLumaOpacity);

  const auto blend = [&](std::int32_t first, std::int32_t end, std::int32_t line) {
    const std::ptrdiff_t at = std::ptrdiff_t{line} * canvas.ChromaWidth() + first;
    loops.blendConstant(canvas.V() + at, canvas.ChromaWidth(), end - first, 1, kPeak.v,
                        kPeakChromaOpacity);
    loops.blendConstant(canvas.U() + at, canvas.ChromaWidth(), end - first, 1, kPeak.u,
                        kPeakChromaOpacity);
  };
  const std::int32_t right = marker.left + marker.width;
  for (std::int32_t row = marker.top; row < marker.top + marker.height; ++row) {
    // The even columns first, then the odd ones: blends of one colour may come in any order.
    blend((marker.left + 1) / 2, (right + 1) / 2, row / 2);
    blend(marker.left / 2, right / 2, row / 2);
  }
}

}  // namespace

void MeterDrawer::Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y,
                       std::int32_t width, std::int32_t height, std::span<const float> levels,
                       std::span<const float> peaks, bool alarm) {
  if (width < 1 || height < 1) {
    return;
  }
  const MeterPanel panel(canvas, x, y, width, height, static_cast<std::int32_t>(levels.size()));
  if (LiesInside(panel)) {
    DrawPanel(panel);
    DrawBars(panel, levels, peaks);
  } else {
    DrawMeterPanel(panel);
    DrawMeterBars(panel, levels, peaks);
  }
  if (alarm) {
    DrawAlarmIndicator(panel);
  }
}

void MeterDrawer::DrawPanel(const MeterPanel& panel) {
  const Yv12Picture& canvas = panel.canvas;
  const kernels::DrawingKernels& loops = kernels::CurrentKernels();
  const VignetteTable& vignette = vignettes_.Get(panel.width, panel.height);
  loops.blendValue(canvas.Y() + panel.y * canvas.width + panel.x, canvas.width, panel.width,
                   panel.height, kPanelLuma, vignette.Luma());
  const std::ptrdiff_t chroma = panel.y / 2 * canvas.ChromaWidth() + panel.x / 2;
  for (std::uint8_t* plane : {canvas.V(), canvas.U()}) {
    loops.fade(plane + chroma, canvas.ChromaWidth(), vignette.ChromaWidth(),
               vignette.ChromaHeight(), vignette.Chroma());
  }
  DrawFrame(panel);
}

void MeterDrawer::DrawBars(const MeterPanel& panel, std::span<const float> levels,
                           std::span<const float> peaks) {
  if (panel.barWidth < 1) {
    return;
  }
  const Yv12Picture& canvas = panel.canvas;
  const std::int32_t length = panel.barLength;
  const std::int32_t bottom = Narrow(Foot(panel));
  const BarTable& table = bars_.Get(bottom, length);
  if (std::ssize(shown_.luma) < length) {
    shown_ = BarRows(length);
  }
  Area bar{Narrow(panel.x + panel.margin), bottom - length + 1, panel.barWidth, length};
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int32_t lit = MeterRows(levels[i], length);
    table.Show(LitSegments(lit, length), shown_);
    kernels::DrawBarLuma(canvas.Y() + std::ptrdiff_t{bar.top} * canvas.width + bar.left,
                         canvas.width, bar.width, length, shown_.luma.data(), table.DitherPhases(),
                         static_cast<std::uint8_t>(bar.left & 7));
    kernels::DrawBarChroma(canvas.V(), canvas.ChromaWidth(), bar.left, bar.top, bar.width, length,
                           shown_.v.data());
    kernels::DrawBarChroma(canvas.U(), canvas.ChromaWidth(), bar.left, bar.top, bar.width, length,
                           shown_.u.data());

    const std::int32_t peak = MeterRows(peaks[i], length);
    const Area marker{bar.left, bottom - peak, bar.width, std::min(lit, PeakMarkerRows(length))};
    if (marker.top >= 0 && (marker.top + marker.height + 1) / 2 <= canvas.ChromaHeight()) {
      BlendMarker(canvas, marker);
    } else {
      DrawPeakMarker(panel, bar.left, bottom, lit, peak);
    }
    bar.left += panel.barWidth + panel.gap;
  }
}
