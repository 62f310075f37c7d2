#include "tests/render/reference_mosaic.h"

#include <algorithm>
#include <cmath>

namespace reference {
namespace {

void Mix(std::uint8_t* sample, int over, int opacity) {
  if (sample != nullptr) {
    // To the nearest, halves up.
    *sample =
        static_cast<std::uint8_t>((2 * (over * opacity + *sample * (255 - opacity)) + 255) / 510);
  }
}

std::uint32_t Hash(std::uint32_t v) {
  return v * (v * v * 15731 + 789221);
}

float Noise(std::uint32_t row, std::uint32_t shift, std::uint32_t offset) {
  return static_cast<float>(Hash((row * 8192 + shift) ^ (row + offset)) + 1376312589) * 1e-11f;
}

struct Colour {
  int y, cr, cb;
};

// Of the row `step` above the bottom.
Colour BarColour(std::int64_t step, std::int64_t length, std::int64_t canvasRow, bool isLit) {
  const float t = static_cast<float>(24 * step) / static_cast<float>(length);
  const int segment = static_cast<int>(t);
  const float a = std::abs(std::sin(3.1415925f * t));
  const float p = (1.5f - 0.5f * a * a) * a;
  float q = std::min(std::max((1.5f - 0.5f * p * p) * 1.2f * p - 0.2f, 0.0f), 1.0f);
  float g = std::abs(std::sin(3.1415925f * t - 0.3f));
  for (int doubling = 0; doubling < 3; ++doubling) {
    g *= g;
  }
  g *= 1.5f;
  const float red = segment < 12 ? 0.0f : 1.0f;
  const float green = segment < 18 ? 1.0f : 0.0f;
  const auto row = static_cast<std::uint32_t>(canvasRow);
  float rgb[] = {red + Noise(row, 0xB7DDE000, 0xDEADBEEF),
                 green + Noise(row, 0xB95FC000, 0xDEADCAFE), Noise(row, 0x00A72000, 1337)};
  if (!isLit) {
    g *= 0.05f;
    q *= 0.6f;
    const float m = (0.3f * rgb[0] + 0.7f * rgb[1] + 0.1f * rgb[2]) * 5;
    for (float& channel : rgb) {
      channel = (channel + m) / 6;
    }
  }
  const float r = std::min(1.0f, ((red * 0.6f + 0.4f) * g + rgb[0]) * q);
  const float gr = std::min(1.0f, ((green * 0.6f + 0.4f) * g + rgb[1]) * q);
  const float b = std::min(1.0f, (0.4f * g + rgb[2]) * q);
  return {static_cast<int>((0.254f * r + 0.504f * gr + 0.098f * b + 0.0625f) * 219 + 16.5f),
          static_cast<int>((0.439f * r - 0.368f * gr - 0.071f * b + 0.5f) * 224 + 16.5f),
          static_cast<int>((-0.148f * r - 0.291f * gr + 0.439f * b + 0.5f) * 224 + 16.5f)};
}

std::int64_t RowsOf(float value, std::int64_t length) {
  const float decibels = 20 * std::log10(std::min(std::max(value, 0.0f), 1.0f));
  return static_cast<std::int64_t>(
      (static_cast<double>(std::min(std::max(decibels, -50.0f), 0.0f)) + 50) / 50 *
          static_cast<double>(length) +
      0.5);
}

}  // namespace

std::uint8_t* Painter::Luma(std::int64_t x, std::int64_t y) const {
  return x < 0 || y < 0 || x >= width_ || y >= height_ ? nullptr : canvas_ + y * width_ + x;
}

std::uint8_t* Painter::Sample(Chroma plane, std::int64_t x, std::int64_t y) const {
  const std::int64_t columns = width_ / 2;
  const std::int64_t rows = height_ / 2;
  return x < 0 || y < 0 || x / 2 >= columns || y / 2 >= rows
             ? nullptr
             : canvas_ + width_ * height_ + (plane == kU ? columns * rows : 0) + y / 2 * columns +
                   x / 2;
}

// Row by row, as far as the rectangle lies inside the canvas.
template <typename Draw>
void Painter::ForEachPixel(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h,
                           const Draw& draw) const {
  for (std::int64_t row = std::max<std::int64_t>(y, 0); row < std::min(y + h, height_); ++row) {
    for (std::int64_t column = std::max<std::int64_t>(x, 0); column < std::min(x + w, width_);
         ++column) {
      draw(column, row);
    }
  }
}

void Painter::Blend(std::int64_t x, std::int64_t y, int luma, int lumaOpacity, int v, int u,
                    int chromaOpacity) const {
  Mix(Luma(x, y), luma, lumaOpacity);
  Mix(Sample(kV, x, y), v, chromaOpacity);
  Mix(Sample(kU, x, y), u, chromaOpacity);
}

void Painter::FillRed(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h) const {
  ForEachPixel(x, y, w, h, [&](std::int64_t column, std::int64_t row) {
    Blend(column, row, 76, 255, 255, 86, 255);
  });
}

void Painter::CopyPicture(const std::uint8_t* source, std::int64_t w, std::int64_t h,
                          std::int64_t x, std::int64_t y) {
  ForEachPixel(x, y, w, h, [&](std::int64_t column, std::int64_t row) {
    *Luma(column, row) = source[(row - y) * w + (column - x)];
  });
  // As many chroma samples as there are pairs of visible columns and rows.
  const std::int64_t left = std::max<std::int64_t>(x, 0);
  const std::int64_t top = std::max<std::int64_t>(y, 0);
  const std::int64_t columns = (std::min(x + w, width_) - left) / 2;
  const std::int64_t rows = (std::min(y + h, height_) - top) / 2;
  for (const Chroma plane : {kV, kU}) {
    const std::uint8_t* const from = source + w * h + (plane == kU ? (w / 2) * (h / 2) : 0);
    for (std::int64_t r = 0; r < rows; ++r) {
      for (std::int64_t c = 0; c < columns; ++c) {
        *Sample(plane, left / 2 * 2 + 2 * c, top / 2 * 2 + 2 * r) =
            from[((top - y) / 2 + r) * (w / 2) + (left - x) / 2 + c];
      }
    }
  }
}

bool Painter::DrawSelection(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h) {
  const std::int64_t t = height_ / 150;
  const std::int64_t bars[4][4] = {
      {x, y, w, t}, {x, y + h - t, w, t}, {x, y, t, h}, {x + w - t, y, t, h}};
  for (const auto& [left, top, columns, rows] : bars) {
    if (left < 0 || top < 0 || columns < 0 || rows < 0 || left + columns >= width_ ||
        top + rows >= height_) {
      return false;
    }
    FillRed(left, top, columns, rows);
  }
  return true;
}

void Painter::DrawBar(std::int64_t left, std::int64_t bottom, std::int64_t width, std::int64_t lit,
                      std::int64_t length) const {
  const auto litSegments =
      static_cast<int>(static_cast<float>(24 * lit) / static_cast<float>(length));
  const auto colourOf = [&](std::int64_t step) {
    const float t = static_cast<float>(24 * step) / static_cast<float>(length);
    return BarColour(step, length, bottom - step, static_cast<int>(t) < litSegments);
  };
  const std::int64_t first = std::max<std::int64_t>(bottom - height_ + 1, 0);
  for (std::int64_t step = first; step < length && bottom - step >= 0; ++step) {
    const std::int64_t row = bottom - step;
    // A row's chroma is the mean of its own and that of the row below, which is neutral under the
    // bottom row.
    const Colour own = colourOf(step);
    const Colour below = step > 0 ? colourOf(step - 1) : Colour{0, 128, 128};
    const int v = (own.cr + below.cr) / 2;
    const int u = (own.cb + below.cb) / 2;
    const auto rowBits = static_cast<std::uint32_t>(row);
    for (std::int64_t column = std::max<std::int64_t>(left, 0);
         column < std::min(left + width, width_); ++column) {
      const bool isEdge = column == left || column == left + width - 1;
      const std::uint32_t d = static_cast<std::uint32_t>(left) + Hash((rowBits * 8192) ^ rowBits) +
                              6 + static_cast<std::uint32_t>(column - left - 1);
      const int dither = static_cast<int>((d * (15731 * d * d + 5) + 5) % 8);
      const int opacity = isEdge ? 128 : 255;
      Blend(column, row, isEdge ? own.y : own.y / 8 * 8 + dither, opacity, v, u, opacity);
    }
  }
}

void Painter::DrawMeter(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h,
                        std::span<const float> levels, std::span<const float> peaks, bool alarm) {
  const std::int64_t mw = w / 10;
  if (mw < 1 || h < 1) {
    return;
  }
  const auto k = static_cast<float>(2.0 / (static_cast<double>(mw) + 1.0 + static_cast<double>(h)));
  ForEachPixel(x, y, mw, h, [&](std::int64_t column, std::int64_t row) {
    const float f = 1 - (std::abs(static_cast<float>(column - x) - static_cast<float>(mw) * 0.5f) +
                         std::abs(static_cast<float>(row - y) - static_cast<float>(h) * 0.5f)) *
                            k;
    const int opacity = 255 - static_cast<int>(128 * f * f);
    Blend(column, row, 16, opacity, 128, 128, opacity / 4);
  });
  const std::int64_t bandBottom = y + (h - 1) / 10;
  const auto line = [&](std::int64_t left, std::int64_t top, std::int64_t columns,
                        std::int64_t rows) {
    ForEachPixel(left, top, columns, rows,
                 [&](std::int64_t column, std::int64_t row) { Mix(Luma(column, row), 235, 200); });
  };
  line(x + 1, y, mw - 2, 1);
  line(x + 1, y + h - 1, mw - 2, 1);
  line(x, y, 1, h);
  line(x + mw - 1, y, 1, h);
  line(x + 1, bandBottom, mw - 2, 1);

  const std::int64_t length = std::max<std::int64_t>(h * 9 / 10 - 4, 1);
  const auto n = static_cast<std::int64_t>(levels.size());
  std::int64_t margin = 2;
  std::int64_t barWidth = -1;
  std::int64_t gap = 3;
  for (const auto& [tryMargin, tryGap] : {std::pair{2, 3}, {1, 2}, {1, 1}, {1, 0}}) {
    if (n > 0 && barWidth <= 1) {
      margin = tryMargin;
      gap = tryGap;
      barWidth = (mw - 2 * margin - gap * (n - 1)) / n;
    }
  }
  std::int64_t left = x + margin;
  const std::int64_t bottom = y + h - 1 - margin;
  for (std::size_t i = 0; i < levels.size(); ++i) {
    const std::int64_t lit = RowsOf(levels[i], length);
    DrawBar(left, bottom, barWidth, lit, length);
    const std::int64_t rows = std::min(lit, std::max<std::int64_t>(length / 50, 1));
    ForEachPixel(
        left, bottom - RowsOf(peaks[i], length), barWidth, rows,
        [&](std::int64_t column, std::int64_t row) { Blend(column, row, 127, 160, 240, 16, 40); });
    left += barWidth + gap;
  }
  if (alarm) {
    const std::int64_t band = bandBottom - y;
    FillRed(x + (mw - mw / 2) / 2, y + (band - band / 2) / 2 + 1, mw / 2, band / 2);
  }
}

bool DrawMosaic(Compose& labels, std::span<const WindowState> windows,
                std::span<const WindowOverlays> overlays, const Yv12Picture& canvas,
                const qorp::Ratio& displayAspect) {
  Painter painter(canvas.data, canvas.width, canvas.height);
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const WindowState& window = windows[i];
    Label* const label = labels.Find(static_cast<std::int32_t>(i));
    if (label != nullptr && window.enabled && window.picture != nullptr) {
      painter.CopyPicture(window.picture, window.w, window.h, window.x, window.y);
      label->Draw(window, canvas, qorp::PixelAspect(canvas.width, canvas.height, displayAspect));
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (overlays[i].selected &&
        !painter.DrawSelection(windows[i].x, windows[i].y, windows[i].w, windows[i].h)) {
      return false;
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (overlays[i].metered) {
      const auto n = static_cast<std::size_t>(overlays[i].channels);
      painter.DrawMeter(windows[i].x, windows[i].y, windows[i].w, windows[i].h,
                        std::span(overlays[i].levels).first(n),
                        std::span(overlays[i].peaks).first(n), overlays[i].alarm);
    }
  }
  return true;
}

}  // namespace reference
