#include "render/meters.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "render/kernels/drawing_kernels.h"

namespace {

using kernels::BarColumns;
using kernels::CurrentKernels;

// Columns or rows [first, end) of the canvas.
struct Range {
  // The part of [start, start + count) that lies in [0, limit).
  Range(std::int64_t start, std::int64_t count, std::int64_t limit)
      : first(static_cast<std::int32_t>(std::clamp<std::int64_t>(start, 0, limit))),
        end(static_cast<std::int32_t>(std::clamp<std::int64_t>(start + count, first, limit))) {}

  std::int32_t Count() const { return end - first; }
  bool IsEmpty() const { return first == end; }
  // The same range in a chroma plane of that size.
  Range Chroma(std::int32_t size) const { return {first / 2, (end + 1) / 2 - first / 2, size}; }

  std::int32_t first;
  std::int32_t end;
};

void BlendRow(const MeterPanel& panel, std::int64_t row, const Range& columns) {
  if (row >= 0 && row < panel.canvas.height) {
    CurrentKernels().blendConstant(panel.canvas.Y() + row * panel.canvas.width + columns.first,
                                   panel.canvas.width, columns.Count(), 1, kFrameLuma,
                                   kFrameOpacity);
  }
}

// The sides of the frame, the lines at its ends and the one under the band.
void DrawFrame(const MeterPanel& panel, const Range& rows) {
  static constexpr auto kFramed = [] {
    std::array<std::uint8_t, 256> framed{};
    for (std::size_t i = 0; i < framed.size(); ++i) {
      framed[i] = Blend255(static_cast<std::uint8_t>(i), kFrameLuma, kFrameOpacity);
    }
    return framed;
  }();
  const Yv12Picture& canvas = panel.canvas;
  for (const std::int64_t column : {panel.x, panel.x + panel.width - 1}) {
    if (column < 0 || column >= canvas.width) {
      continue;
    }
    std::uint8_t* sample = canvas.Y() + std::ptrdiff_t{rows.first} * canvas.width + column;
    for (std::int32_t row = rows.first; row < rows.end; ++row) {
      *sample = kFramed[*sample];
      sample += canvas.width;
    }
  }
  const Range between(panel.x + 1, std::int64_t{panel.width} - 2, canvas.width);
  BlendRow(panel, panel.y, between);
  BlendRow(panel, panel.y + panel.height - 1, between);
  BlendRow(panel, panel.bandBottom, between);
}

BarColumns ColumnsOf(std::int64_t left, std::int32_t width, std::int32_t canvasWidth) {
  const Range opaque(left + 1, std::int64_t{width} - 2, canvasWidth);
  const std::int64_t right = left + width - 1;
  const auto shown = [canvasWidth](std::int64_t column) {
    return column >= 0 && column < canvasWidth ? static_cast<std::int32_t>(column) : -1;
  };
  return {shown(left), width >= 2 ? shown(right) : -1, opaque.first, opaque.Count()};
}

// A side that shares its chroma sample with opaque columns is overwritten by them.
BarColumns ChromaOf(const BarColumns& luma, std::int32_t chromaWidth) {
  const Range opaque =
      luma.opaque > 0
          ? Range(luma.first, luma.opaque, 2 * std::int64_t{chromaWidth} + 1).Chroma(chromaWidth)
          : Range(0, 0, 0);
  const auto shown = [&](std::int32_t column) {
    return column < 0 || column / 2 >= chromaWidth ? -1 : column / 2;
  };
  return {shown(luma.left), shown(luma.right), opaque.first, opaque.Count()};
}

// Chroma is blended once for each luma pixel: twice in a row and twice in a column, except for
// samples that only one row or column of the marker covers.
void DrawPeakMarker(const MeterPanel& panel, std::int64_t left, std::int32_t lit,
                    std::int32_t peak) {
  const Yv12Picture& canvas = panel.canvas;
  const Range columns(left, panel.barWidth, canvas.width);
  const Range rows(panel.BarBottom() - peak, std::min(lit, PeakMarkerRows(panel.barLength)),
                   canvas.height);
  if (columns.IsEmpty() || rows.IsEmpty()) {
    return;
  }
  const auto blend = CurrentKernels().blendConstant;
  blend(canvas.Y() + std::ptrdiff_t{rows.first} * canvas.width + columns.first, canvas.width,
        columns.Count(), rows.Count(), kPeak.luma, kPeakLumaOpacity);
  const std::int32_t chromaWidth = canvas.ChromaWidth();
  const auto blendSamples = [&](std::int32_t first, std::int32_t end, std::int32_t line) {
    const std::ptrdiff_t at = std::ptrdiff_t{line} * chromaWidth + first;
    const std::int32_t count = std::min(end, chromaWidth) - first;
    blend(canvas.V() + at, chromaWidth, count, 1, kPeak.v, kPeakChromaOpacity);
    blend(canvas.U() + at, chromaWidth, count, 1, kPeak.u, kPeakChromaOpacity);
  };
  for (std::int32_t row = rows.first; row < rows.end && row / 2 < canvas.ChromaHeight(); ++row) {
    // The even columns first, then the odd ones: the order of blends of one colour does not matter.
    blendSamples((columns.first + 1) / 2, (columns.end + 1) / 2, row / 2);
    blendSamples(columns.first / 2, columns.end / 2, row / 2);
  }
}

// The red box in the top band.
void DrawAlarmIndicator(const MeterPanel& panel) {
  const auto band = static_cast<std::int32_t>(panel.bandBottom - panel.y);
  const std::int32_t width = panel.width / 2;
  const std::int32_t height = band / 2;
  const std::int64_t x = panel.x + (panel.width - width) / 2;
  const std::int64_t y = panel.y + (band - height) / 2 + 1;
  FillPlaneRect(panel.canvas, Plane::Y, x, y, width, height, kAlarm.luma);
  FillPlaneRect(panel.canvas, Plane::V, x, y, width, height, kAlarm.v);
  FillPlaneRect(panel.canvas, Plane::U, x, y, width, height, kAlarm.u);
}

}  // namespace

MeterPanel::MeterPanel(const Yv12Picture& canvasIn, std::int32_t xIn, std::int32_t yIn,
                       std::int32_t widthIn, std::int32_t heightIn, std::int32_t channelsIn)
    : canvas(canvasIn),
      x(xIn),
      y(yIn),
      width(widthIn),
      height(heightIn),
      bandBottom(y + (heightIn - 1) / 10),
      barLength(static_cast<std::int32_t>(
          std::max<std::int64_t>(std::int64_t{heightIn} * 9 / 10 - 4, 1))),
      channels(channelsIn) {
  if (channels <= 0) {
    return;
  }
  // A crowded panel has a smaller margin and smaller gaps, so that its bars can be two pixels wide.
  for (;;) {
    barWidth = (width - 2 * margin - gap * (channels - 1)) / channels;
    if (barWidth > 1 || (margin == 1 && gap == 0)) {
      return;
    }
    margin = std::max(margin - 1, 1);
    gap = std::max(gap - 1, 0);
  }
}

RowRange MeterRowsTouched(const MeterPanel& panel, std::span<const float> levels,
                          std::span<const float> peaks) {
  RowRange rows{panel.y, panel.y + panel.height};
  if (panel.barWidth < 1) {
    return rows;
  }
  rows.top = std::min(rows.top, panel.BarBottom() - panel.barLength + 1);
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int64_t top = panel.BarBottom() - MeterRows(peaks[i], panel.barLength);
    const std::int32_t marker =
        std::min(MeterRows(levels[i], panel.barLength), PeakMarkerRows(panel.barLength));
    if (marker > 0) {
      rows = {std::min(rows.top, top), std::max(rows.bottom, top + marker)};
    }
  }
  return rows;
}

std::int32_t MeterRows(float value, std::int32_t length) {
  // Comparisons with NaN fail: it counts as silence.
  const float clamped = value > 0.0f ? std::min(value, 1.0f) : 0.0f;
  const float decibels = std::clamp(20.0f * std::log10(clamped), -50.0f, 0.0f);
  return static_cast<std::int32_t>(std::floor((double{decibels} + 50.0) / 50.0 * length + 0.5));
}

void MeterDrawer::Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y,
                       std::int32_t width, std::int32_t height, std::span<const float> levels,
                       std::span<const float> peaks, bool alarm) {
  if (!Shows(width, height)) {
    return;
  }
  const MeterPanel panel(canvas, x, y, width, height, static_cast<std::int32_t>(levels.size()));
  DrawMeterPanel(panel);
  DrawMeterBars(panel, levels, peaks);
  if (alarm) {
    DrawAlarmIndicator(panel);
  }
}

void MeterDrawer::DrawMeterPanel(const MeterPanel& panel) {
  const Yv12Picture& canvas = panel.canvas;
  const Range columns(panel.x, panel.width, canvas.width);
  const Range rows(panel.y, panel.height, canvas.height);
  if (columns.IsEmpty() || rows.IsEmpty()) {
    return;
  }
  const Range chromaColumns = columns.Chroma(canvas.ChromaWidth());
  const Range chromaRows = rows.Chroma(canvas.ChromaHeight());
  const VignetteTable& vignette =
      vignettes_.Get({panel.width, panel.height, columns.first - panel.x, rows.first - panel.y,
                      columns.Count(), rows.Count(), chromaColumns.Count(), chromaRows.Count()});
  CurrentKernels().blendValue(
      canvas.Y() + std::ptrdiff_t{rows.first} * canvas.width + columns.first, canvas.width,
      columns.Count(), rows.Count(), kPanelLuma, vignette.Luma(), columns.Count());
  // Once for each luma pixel: a chroma sample is blended up to four times, which removes more
  // colour than a single blend would.
  const std::ptrdiff_t chroma =
      std::ptrdiff_t{chromaRows.first} * canvas.ChromaWidth() + chromaColumns.first;
  for (std::uint8_t* const plane : {canvas.V(), canvas.U()}) {
    CurrentKernels().fade(plane + chroma, canvas.ChromaWidth(), chromaColumns.Count(),
                          chromaRows.Count(), vignette.Chroma());
  }
  DrawFrame(panel, rows);
}

void MeterDrawer::DrawMeterBars(const MeterPanel& panel, std::span<const float> levels,
                                std::span<const float> peaks) {
  assert(std::ssize(levels) >= panel.channels && std::ssize(peaks) >= panel.channels);
  if (panel.barWidth < 1) {
    return;
  }
  std::int64_t left = panel.x + panel.margin;
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int32_t lit = MeterRows(levels[i], panel.barLength);
    DrawMeterBar(panel, left, lit);
    DrawPeakMarker(panel, left, lit, MeterRows(peaks[i], panel.barLength));
    left += panel.barWidth + panel.gap;
  }
}

void MeterDrawer::DrawMeterBar(const MeterPanel& panel, std::int64_t left, std::int32_t lit) {
  const Yv12Picture& canvas = panel.canvas;
  const std::int64_t top = panel.BarBottom() - panel.barLength + 1;
  const Range rows(top, panel.barLength, canvas.height);
  if (rows.IsEmpty()) {
    return;
  }
  const BarTable& table =
      bars_.Get({panel.BarBottom(), panel.barLength, rows.first - top, rows.Count()});
  if (std::ssize(rows_.luma) < rows.Count()) {
    rows_ = BarRows(rows.Count());
  }
  table.Show(LitSegments(lit, panel.barLength), rows_);
  const BarColumns columns = ColumnsOf(left, panel.barWidth, canvas.width);
  const auto phase = static_cast<std::uint32_t>(columns.first - 1);
  kernels::DrawBarLuma(canvas.Y() + std::ptrdiff_t{rows.first} * canvas.width, canvas.width,
                       columns, rows.Count(), rows_.luma.data(), table.DitherPhases(), phase);
  const BarColumns samples = ChromaOf(columns, canvas.ChromaWidth());
  for (const auto& [plane, values] :
       {std::pair{canvas.V(), rows_.v.data()}, {canvas.U(), rows_.u.data()}}) {
    kernels::DrawBarChroma(plane, canvas.ChromaWidth(), canvas.ChromaHeight(), samples, rows.first,
                           rows.Count(), values);
  }
}
