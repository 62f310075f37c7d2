#include "render/meter_look.h"

#include <cmath>

#include "render/kernels/drawing_kernels.h"

// Uses float where its rounding is visible in the frame.
namespace {

constexpr float kPi = 3.1415925f;
constexpr std::uint8_t kNeutralChroma = 128;

// An integer hash, mod 2^32.
constexpr std::uint32_t Scramble(std::uint32_t v) {
  return v * (v * v * 15731u + 789221u);
}

// 0 to 0.043.
float Noise(std::uint32_t v) {
  return static_cast<float>(Scramble(v) + 1376312589u) * 1e-11f;
}

// The integer part, mod 256.
std::uint8_t Sample(float value) {
  return static_cast<std::uint8_t>(static_cast<std::int32_t>(value));
}

// One row of a bar, counted from the bottom: which segment it belongs to and how that is shaded
// there.
struct BarStep {
  BarStep(std::int32_t step, std::int32_t length) {
    const float t =
        static_cast<float>(std::int64_t{kMeterSegments} * step) / static_cast<float>(length);
    segment = static_cast<std::int32_t>(t);
    const float a = std::fabs(std::sin(kPi * t));
    const float p = (1.5f - 0.5f * (a * a)) * a;
    brightness = std::clamp((1.5f - 0.5f * (p * p)) * 1.2f * p - 0.2f, 0.0f, 1.0f);
    const float b = std::fabs(std::sin(kPi * t - 0.3f));
    const float b2 = b * b;
    const float b4 = b2 * b2;
    highlight = 1.5f * (b4 * b4);
  }

  std::int32_t segment;  // 0 to 23
  float brightness;      // 0 at the segment's borders, 1 around its middle
  float highlight;       // a narrow reflection beside the middle
};

// The colour of a bar's row: green, yellow and red segments, dimmed towards grey when unlit. A
// little noise, which depends on the row of the canvas, keeps large bars from looking flat.
MeterColour BarColour(const BarStep& step, std::int64_t canvasRow, bool lit) {
  const auto row = static_cast<std::uint32_t>(canvasRow);
  const std::uint32_t s = row << 13;
  const float red = step.segment >= 12 ? 1.0f : 0.0f;
  const float green = step.segment < 18 ? 1.0f : 0.0f;
  float r = red + Noise((s + 0xB7DDE000u) ^ (row + 0xDEADBEEFu));
  float g = green + Noise((s + 0xB95FC000u) ^ (row + 0xDEADCAFEu));
  float b = Noise((s + 0x00A72000u) ^ (row + 1337u));
  float highlight = step.highlight;
  float brightness = step.brightness;
  if (!lit) {
    highlight *= 0.05f;
    brightness *= 0.6f;
    const float grey = (0.3f * r + 0.7f * g + 0.1f * b) * 5.0f;
    r = (r + grey) / 6.0f;
    g = (g + grey) / 6.0f;
    b = (b + grey) / 6.0f;
  }
  // The reflection has the hue of its segment.
  r = std::min(1.0f, ((red * 0.6f + 0.4f) * highlight + r) * brightness);
  g = std::min(1.0f, ((green * 0.6f + 0.4f) * highlight + g) * brightness);
  b = std::min(1.0f, (0.4f * highlight + b) * brightness);
  // Not the conversion of the labels: these weights and offsets are the meter's own.
  return {Sample((0.254f * r + 0.504f * g + 0.098f * b + 0.0625f) * 219.0f + 16.5f),
          Sample((0.439f * r - 0.368f * g - 0.071f * b + 0.5f) * 224.0f + 16.5f),
          Sample((-0.148f * r - 0.291f * g + 0.439f * b + 0.5f) * 224.0f + 16.5f)};
}

// A bar's chroma is the mean of its last even and its last odd row; before the first rows, neutral.
class BarChroma {
 public:
  // Takes the colour of the next row (from the bottom up) and returns it with the mean chroma.
  MeterColour Average(std::int64_t canvasRow, const MeterColour& colour) {
    last_[static_cast<std::uint32_t>(canvasRow) & 1u] = colour;
    return {colour.luma, static_cast<std::uint8_t>((last_[0].v + last_[1].v) >> 1),
            static_cast<std::uint8_t>((last_[0].u + last_[1].u) >> 1)};
  }

 private:
  MeterColour last_[2] = {{0, kNeutralChroma, kNeutralChroma}, {0, kNeutralChroma, kNeutralChroma}};
};

// Where the dither of a row begins, mod 8, without the bar's left column.
std::uint8_t DitherPhase(std::int64_t canvasRow) {
  const auto row = static_cast<std::uint32_t>(canvasRow);
  return (Scramble((row << 13) ^ row) + 6u) & 7u;
}

}  // namespace

std::int32_t LitSegments(std::int32_t lit, std::int32_t length) {
  return static_cast<std::int32_t>(static_cast<float>(std::int64_t{kMeterSegments} * lit) /
                                   static_cast<float>(length));
}

std::int32_t PeakMarkerRows(std::int32_t length) {
  return std::max(length / 50, 1);
}

VignetteTable::VignetteTable(std::int64_t width, std::int64_t height, std::int64_t column,
                             std::int64_t row, std::int64_t columns, std::int64_t rows,
                             std::int64_t chromaColumns, std::int64_t chromaRows)
    : luma_(static_cast<std::size_t>(columns * rows)),
      chroma_(static_cast<std::size_t>(chromaColumns * chromaRows * kernels::kFadeLayers),
              kernels::FadeFactor(0)) {
  const float middleColumn = static_cast<float>(width) * 0.5f;
  const float middleRow = static_cast<float>(height) * 0.5f;
  const auto slope =
      static_cast<float>(2.0 / (static_cast<double>(width) + 1.0 + static_cast<double>(height)));
  std::uint8_t* luma = luma_.data();
  for (std::int64_t r = 0; r < rows; ++r) {
    for (std::int64_t c = 0; c < columns; ++c) {
      const float f = 1.0f - (std::fabs(static_cast<float>(column + c) - middleColumn) +
                              std::fabs(static_cast<float>(row + r) - middleRow)) *
                                 slope;
      const auto opacity =
          static_cast<std::uint8_t>(255 - static_cast<std::int32_t>(128.0f * f * f));
      *luma++ = opacity;
      if (c / 2 < chromaColumns && r / 2 < chromaRows) {
        // A sample's four pixels are its four layers.
        const std::int64_t line = r / 2 * kernels::kFadeLayers + r % 2 * 2 + c % 2;
        chroma_[static_cast<std::size_t>(line * chromaColumns + c / 2)] =
            kernels::FadeFactor(opacity / 4);
      }
    }
  }
}

BarTable::BarTable(std::int64_t bottom, std::int64_t length, std::int64_t first, std::int64_t count)
    : count_(static_cast<std::int32_t>(count)),
      lit_(count_),
      unlit_(count_),
      ditherPhases_(static_cast<std::size_t>(count)) {
  BarChroma litChroma;
  BarChroma unlitChroma;
  MeterColour litBelow{};
  std::int32_t segments = 0;  // whose boundary is known
  // The chroma of a row depends on that of the row below.
  const std::int64_t firstStep = std::max<std::int64_t>(length - first - count - 1, 0);
  for (std::int64_t step = firstStep; step < length - first; ++step) {
    const std::int64_t row = bottom - step;
    const BarStep at(static_cast<std::int32_t>(step), static_cast<std::int32_t>(length));
    const MeterColour lit = BarColour(at, row, true);
    const MeterColour unlit = BarColour(at, row, false);
    const auto index = static_cast<std::int32_t>(length - first - 1 - step);
    for (; segments <= std::min(at.segment, kMeterSegments); ++segments) {
      BarChroma mixed;
      if (step > firstStep) {
        mixed.Average(row + 1, litBelow);
      }
      boundaries_[segments] = {index, mixed.Average(row, unlit)};
    }
    litBelow = lit;

    const MeterColour litShown = litChroma.Average(row, lit);
    const MeterColour unlitShown = unlitChroma.Average(row, unlit);
    if (index < count_) {
      const auto put = [index](BarRows& rows, const MeterColour& colour) {
        rows.luma[index] = colour.luma;
        rows.v[index] = colour.v;
        rows.u[index] = colour.u;
      };
      put(lit_, litShown);
      put(unlit_, unlitShown);
      ditherPhases_[index] = DitherPhase(row);
    }
  }
}

void BarTable::Show(std::int32_t litSegments, BarRows& rows) const {
  const Boundary& boundary = boundaries_[std::clamp(litSegments, 0, kMeterSegments)];
  const std::int32_t unlitRows = std::min(boundary.row + 1, count_);
  const auto join = [&](std::vector<std::uint8_t> BarRows::*kind, std::uint8_t atBoundary) {
    const std::vector<std::uint8_t>& lit = lit_.*kind;
    const std::vector<std::uint8_t>& unlit = unlit_.*kind;
    std::vector<std::uint8_t>& to = rows.*kind;
    std::copy_n(unlit.begin(), unlitRows, to.begin());
    std::copy(lit.begin() + unlitRows, lit.end(), to.begin() + unlitRows);
    if (boundary.row >= 0 && boundary.row < count_) {
      to[boundary.row] = atBoundary;
    }
  };
  join(&BarRows::luma, boundary.colour.luma);
  join(&BarRows::v, boundary.colour.v);
  join(&BarRows::u, boundary.colour.u);
}
