#include "render/meter_drawer.h"

#include <algorithm>
#include <array>

#include "render/kernels/bar_kernels.h"
#include "render/kernels/drawing_kernels.h"
#include "render/kernels/strip_kernel.h"

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

// Darkens the rows [from, to) of the panel, from an even row on, and draws the sides of its frame.
void DarkenRows(const MeterPanel& panel, const VignetteTable& vignette, std::int32_t from,
                std::int32_t to) {
  const Yv12Picture& canvas = panel.canvas;
  const kernels::DrawingKernels& loops = kernels::CurrentKernels();
  std::uint8_t* luma = canvas.Y() + (panel.y + from) * canvas.width + panel.x;
  loops.blendValue(luma, canvas.width, panel.width, to - from, kPanelLuma, vignette.Luma(from));
  const std::ptrdiff_t chroma = (panel.y + from) / 2 * canvas.ChromaWidth() + panel.x / 2;
  for (std::uint8_t* plane : {canvas.V(), canvas.U()}) {
    loops.fade(plane + chroma, canvas.ChromaWidth(), vignette.ChromaWidth(), (to - from + 1) / 2,
               vignette.Chroma(from / 2));
  }
  for (std::int32_t row = from; row < to; ++row) {
    luma[0] = kFramed[luma[0]];
    luma[panel.width - 1] = kFramed[luma[panel.width - 1]];
    luma += canvas.width;
  }
}

// The lines of the frame and the one under the band.
void DrawLines(const MeterPanel& panel) {
  const std::int32_t stride = panel.canvas.width;
  for (const std::int64_t row : {panel.y, panel.y + panel.height - 1, panel.bandBottom}) {
    kernels::CurrentKernels().blendConstant(panel.canvas.Y() + row * stride + panel.x + 1, stride,
                                            std::max(panel.width - 2, 0), 1, kFrameLuma,
                                            kFrameOpacity);
  }
}

// Whether the bars can be drawn in strips: wide enough, and on rows that no line of the frame
// crosses.
bool FitsStrips(const MeterPanel& panel) {
  return kernels::CurrentKernels().barStrips != nullptr &&
         panel.barWidth >= StripTable::kLeastBarWidth &&
         Foot(panel) - panel.barLength + 1 > panel.bandBottom;
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

void DrawMarker(const MeterPanel& panel, std::int64_t left, std::int32_t lit, float peakLevel) {
  const std::int32_t bottom = Narrow(Foot(panel));
  const std::int32_t peak = MeterRows(peakLevel, panel.barLength);
  const Area marker{Narrow(left), bottom - peak, panel.barWidth,
                    std::min(lit, PeakMarkerRows(panel.barLength))};
  if (marker.top >= 0 && (marker.top + marker.height + 1) / 2 <= panel.canvas.ChromaHeight()) {
    BlendMarker(panel.canvas, marker);
  } else {
    DrawPeakMarker(panel, left, bottom, lit, peak);
  }
}

// `count` rows of one bar, from its row `first` on, counted from the top.
void DrawBarRows(const MeterPanel& panel, const BarTable& table, std::int64_t left,
                 std::int32_t first, std::int32_t count, const std::uint8_t* luma,
                 const std::uint8_t* v, const std::uint8_t* u) {
  const Yv12Picture& canvas = panel.canvas;
  const std::int32_t column = Narrow(left);
  const std::int32_t top = Narrow(Foot(panel)) - panel.barLength + 1 + first;
  kernels::DrawBarLuma(canvas.Y() + std::ptrdiff_t{top} * canvas.width + column, canvas.width,
                       panel.barWidth, count, luma, table.DitherPhases() + first,
                       static_cast<std::uint8_t>(column & 7));
  kernels::DrawBarChroma(canvas.V(), canvas.ChromaWidth(), column, top, panel.barWidth, count, v);
  kernels::DrawBarChroma(canvas.U(), canvas.ChromaWidth(), column, top, panel.barWidth, count, u);
}

}  // namespace

void MeterDrawer::Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y,
                       std::int32_t width, std::int32_t height, std::span<const float> levels,
                       std::span<const float> peaks, bool alarm) {
  if (!Shows(width, height)) {
    return;
  }
  const MeterPanel panel(canvas, x, y, width, height, static_cast<std::int32_t>(levels.size()));
  if (LiesInside(panel)) {
    DrawInside(panel, levels, peaks);
  } else {
    DrawMeterPanel(panel);
    DrawMeterBars(panel, levels, peaks);
  }
  if (alarm) {
    DrawAlarmIndicator(panel);
  }
}

void MeterDrawer::DrawInside(const MeterPanel& panel, std::span<const float> levels,
                             std::span<const float> peaks) {
  if (FitsStrips(panel)) {
    DrawInStrips(panel, levels, peaks);
    return;
  }
  DarkenRows(panel, vignettes_.Get({panel.width, panel.height}), 0, panel.height);
  DrawLines(panel);
  if (panel.barWidth >= 1) {
    DrawBarByBar(panel, levels, peaks);
  }
}

void MeterDrawer::DrawBarByBar(const MeterPanel& panel, std::span<const float> levels,
                               std::span<const float> peaks) {
  const std::int32_t length = panel.barLength;
  const BarTable& table = bars_.Get({Narrow(Foot(panel)), length});
  if (std::ssize(rows_.luma) < length) {
    rows_ = BarRows(length);
  }
  std::int64_t left = panel.x + panel.margin;
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int32_t lit = MeterRows(levels[i], length);
    table.Show(LitSegments(lit, length), rows_);
    DrawBarRows(panel, table, left, 0, length, rows_.luma.data(), rows_.v.data(), rows_.u.data());
    DrawMarker(panel, left, lit, peaks[i]);
    left += panel.barWidth + panel.gap;
  }
}

void MeterDrawer::DrawInStrips(const MeterPanel& panel, std::span<const float> levels,
                               std::span<const float> peaks) {
  const Yv12Picture& canvas = panel.canvas;
  const std::int32_t length = panel.barLength;
  const StripTable& strips = strips_.Get({panel.width, panel.height, panel.channels});
  const VignetteTable& vignette = vignettes_.Get({panel.width, panel.height});
  const BarTable& table = bars_.Get({Narrow(Foot(panel)), length});
  DarkenRows(panel, vignette, 0, 2 * strips.FirstPair());
  DarkenRows(panel, vignette, 2 * strips.EndPair(), panel.height);
  DrawLines(panel);

  const auto bars = static_cast<std::size_t>(panel.channels);
  lit_.resize(std::max(lit_.size(), bars));
  pairs_.resize(std::max(pairs_.size(), bars * static_cast<std::size_t>(table.Pairs()) + 1));
  const std::int32_t lastRow = length - 1;
  const bool upperRowAlone = table.FirstPairRow() == 1;
  const bool lowerRowAlone = table.FirstPairRow() + 2 * table.Pairs() <= lastRow;
  std::int64_t left = panel.x + panel.margin;
  for (std::size_t i = 0; i < bars; ++i) {
    lit_[i] = MeterRows(levels[i], length);
    const std::int32_t segments = LitSegments(lit_[i], length);
    table.ShowPairs(segments, pairs_.data() + i, panel.channels);
    // The rows that share their chroma with one that has no bar.
    const auto alone = [&](std::int32_t row) {
      const MeterColour colour = table.Row(segments, row);
      DrawBarRows(panel, table, left, row, 1, &colour.luma, &colour.v, &colour.u);
    };
    if (upperRowAlone) {
      alone(0);
    }
    if (lowerRowAlone) {
      alone(lastRow);
    }
    left += panel.barWidth + panel.gap;
  }

  const std::int64_t row = panel.y + std::int64_t{2} * strips.FirstPair();
  const std::ptrdiff_t chroma = row / 2 * canvas.ChromaWidth() + panel.x / 2;
  kernels::BarRun run{};
  strips.Describe(run);
  run.luma = canvas.Y() + row * canvas.width + panel.x;
  run.v = canvas.V() + chroma;
  run.u = canvas.U() + chroma;
  run.lumaStride = canvas.width;
  run.chromaStride = canvas.ChromaWidth();
  run.bars = pairs_.data();
  run.phases = table.DitherPhases() + table.FirstPairRow();
  // The pattern of a bar begins at its left edge, one column before its opaque part.
  run.phase = static_cast<std::uint32_t>(panel.x - 1);
  kernels::CurrentKernels().barStrips(run);

  left = panel.x + panel.margin;
  for (std::size_t i = 0; i < bars; ++i) {
    DrawMarker(panel, left, lit_[i], peaks[i]);
    left += panel.barWidth + panel.gap;
  }
}
