#include "render/meters.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "render/meter_colours.h"

namespace {

// Pixels of the canvas; those outside it and chroma that no sample covers are left alone.
class Pixels {
 public:
  explicit Pixels(const Yv12Picture& canvas) : canvas_(canvas) {}

  void BlendLuma(std::int64_t x, std::int64_t y, std::uint8_t value, std::uint8_t opacity) const {
    if (HasLuma(x, y)) {
      std::uint8_t& sample = canvas_.Y()[y * canvas_.width + x];
      sample = Blend255(sample, value, opacity);
    }
  }
  void BlendChroma(std::int64_t x, std::int64_t y, std::uint8_t v, std::uint8_t u,
                   std::uint8_t opacity) const {
    if (HasChroma(x, y)) {
      const std::ptrdiff_t at =
          ChromaIndex(static_cast<std::int32_t>(x), static_cast<std::int32_t>(y), canvas_.width);
      canvas_.V()[at] = Blend255(canvas_.V()[at], v, opacity);
      canvas_.U()[at] = Blend255(canvas_.U()[at], u, opacity);
    }
  }
  void Set(std::int64_t x, std::int64_t y, std::uint8_t luma, std::uint8_t v,
           std::uint8_t u) const {
    if (HasLuma(x, y)) {
      canvas_.Y()[y * canvas_.width + x] = luma;
    }
    if (HasChroma(x, y)) {
      const std::ptrdiff_t at =
          ChromaIndex(static_cast<std::int32_t>(x), static_cast<std::int32_t>(y), canvas_.width);
      canvas_.V()[at] = v;
      canvas_.U()[at] = u;
    }
  }

 private:
  bool HasLuma(std::int64_t x, std::int64_t y) const {
    return x >= 0 && y >= 0 && x < canvas_.width && y < canvas_.height;
  }
  bool HasChroma(std::int64_t x, std::int64_t y) const {
    return x >= 0 && y >= 0 && x / 2 < canvas_.ChromaWidth() && y / 2 < canvas_.ChromaHeight();
  }

  const Yv12Picture& canvas_;
};

// Of `count` places from `start` on those from 0 to below `limit`, counted from start.
struct Visible {
  Visible(std::int64_t start, std::int64_t count, std::int64_t limit)
      : first(std::max<std::int64_t>(-start, 0)), end(std::min(count, limit - start)) {}

  std::int64_t first;
  std::int64_t end;
};

std::int64_t Bottom(const MeterPanel& panel) {
  return panel.y + panel.height - 1 - panel.margin;
}

// Calls draw with every pixel of a rectangle that lies inside the canvas.
template <typename Draw>
void ForEachPixel(const Yv12Picture& canvas, std::int64_t x, std::int64_t y, std::int64_t width,
                  std::int64_t height, const Draw& draw) {
  const Visible rows(y, height, canvas.height);
  const Visible columns(x, width, canvas.width);
  for (std::int64_t r = rows.first; r < rows.end; ++r) {
    for (std::int64_t c = columns.first; c < columns.end; ++c) {
      draw(x + c, y + r);
    }
  }
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
  // A crowded panel has no margin and gaps, so that its bars are two pixels wide or more.
  for (;;) {
    barWidth = (width - 2 * margin - gap * (channels - 1)) / channels;
    if (barWidth > 1 || (margin == 1 && gap == 0)) {
      return;
    }
    margin = std::max(margin - 1, 1);
    gap = std::max(gap - 1, 0);
  }
}

void DrawMeterPanel(const MeterPanel& panel) {
  const Pixels pixels(panel.canvas);
  const VignetteShape shape(panel.width, panel.height);
  ForEachPixel(panel.canvas, panel.x, panel.y, panel.width, panel.height,
               [&](std::int64_t x, std::int64_t y) {
                 const std::uint8_t opacity =
                     shape.LumaOpacity(static_cast<std::int32_t>(x - panel.x),
                                       static_cast<std::int32_t>(y - panel.y));
                 pixels.BlendLuma(x, y, kPanelLuma, opacity);
                 // Once for each luma pixel: a chroma sample is blended up to four times, which
                 // takes more colour away than a single blend would.
                 pixels.BlendChroma(x, y, kNeutralChroma, kNeutralChroma, opacity / 4);
               });

  const auto line = [&](std::int64_t x, std::int64_t y, std::int64_t width, std::int64_t height) {
    ForEachPixel(panel.canvas, x, y, width, height, [&](std::int64_t column, std::int64_t row) {
      pixels.BlendLuma(column, row, kFrameLuma, kFrameOpacity);
    });
  };
  line(panel.x + 1, panel.y, panel.width - 2, 1);
  line(panel.x + 1, panel.y + panel.height - 1, panel.width - 2, 1);
  line(panel.x, panel.y, 1, panel.height);
  line(panel.x + panel.width - 1, panel.y, 1, panel.height);
  line(panel.x + 1, panel.bandBottom, panel.width - 2, 1);
}

RowRange MeterRowsTouched(const MeterPanel& panel, std::span<const float> levels,
                          std::span<const float> peaks) {
  RowRange rows{panel.y, panel.y + panel.height};
  if (panel.barWidth < 1) {
    return rows;
  }
  const std::int64_t bottom = Bottom(panel);
  rows.top = std::min(rows.top, bottom - panel.barLength + 1);
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int64_t top = bottom - MeterRows(peaks[i], panel.barLength);
    const std::int32_t marker =
        std::min(MeterRows(levels[i], panel.barLength), PeakMarkerRows(panel.barLength));
    if (marker > 0) {
      rows = {std::min(rows.top, top), std::max(rows.bottom, top + marker)};
    }
  }
  return rows;
}

std::int32_t MeterRows(float value, std::int32_t length) {
  // Comparisons with what is not a number fail: it counts as silence.
  const float clamped = value > 0.0f ? std::min(value, 1.0f) : 0.0f;
  const float decibels = std::clamp(20.0f * std::log10(clamped), -50.0f, 0.0f);
  return static_cast<std::int32_t>(std::floor((double{decibels} + 50.0) / 50.0 * length + 0.5));
}

void DrawMeterBars(const MeterPanel& panel, std::span<const float> levels,
                   std::span<const float> peaks) {
  assert(std::ssize(levels) >= panel.channels && std::ssize(peaks) >= panel.channels);
  const std::int64_t bottom = Bottom(panel);
  std::int64_t left = panel.x + panel.margin;
  for (std::int32_t i = 0; i < panel.channels; ++i) {
    const std::int32_t lit = MeterRows(levels[i], panel.barLength);
    DrawMeterBar(panel, left, bottom, panel.barWidth, lit, panel.barLength);
    DrawPeakMarker(panel, left, bottom, lit, MeterRows(peaks[i], panel.barLength));
    left += panel.barWidth + panel.gap;
  }
}

void DrawPeakMarker(const MeterPanel& panel, std::int64_t left, std::int64_t bottom,
                    std::int32_t lit, std::int32_t peak) {
  const Pixels pixels(panel.canvas);
  const std::int32_t rows = std::min(lit, PeakMarkerRows(panel.barLength));
  ForEachPixel(panel.canvas, left, bottom - peak, panel.barWidth, rows,
               [&](std::int64_t column, std::int64_t row) {
                 pixels.BlendLuma(column, row, kPeak.luma, kPeakLumaOpacity);
                 pixels.BlendChroma(column, row, kPeak.v, kPeak.u, kPeakChromaOpacity);
               });
}

void DrawMeterBar(const MeterPanel& panel, std::int64_t left, std::int64_t bottom,
                  std::int32_t width, std::int32_t lit, std::int32_t length) {
  const Pixels pixels(panel.canvas);
  const std::int32_t litSegments = LitSegments(lit, length);
  BarChroma chroma;
  const Visible rows(bottom - length + 1, length, panel.canvas.height);  // from the top
  const Visible opaque(left + 1, std::int64_t{width} - 2, panel.canvas.width);
  const std::int64_t firstStep = length - rows.end;
  // The chroma of a row depends on that of the row below.
  for (std::int64_t step = std::max<std::int64_t>(firstStep - 1, 0); step < length - rows.first;
       ++step) {
    const std::int64_t row = bottom - step;
    const BarStep at(static_cast<std::int32_t>(step), length);
    const MeterColour colour = BarColour(at, row, at.segment < litSegments);
    const MeterColour shown = chroma.Average(row, colour);
    if (width <= 0) {
      continue;
    }
    const auto edge = [&](std::int64_t x) {
      pixels.BlendLuma(x, row, shown.luma, kBarEdgeOpacity);
      pixels.BlendChroma(x, row, shown.v, shown.u, kBarEdgeOpacity);
    };
    edge(left);
    for (std::int64_t c = opaque.first; c < opaque.end; ++c) {
      const std::uint8_t luma =
          (shown.luma & 0xF8) | BarDither(left, row, static_cast<std::int32_t>(c));
      pixels.Set(left + 1 + c, row, luma, shown.v, shown.u);
    }
    if (width >= 2) {
      edge(left + width - 1);
    }
  }
}

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
