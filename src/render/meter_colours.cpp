#include "render/meter_colours.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float kPi = 3.1415925f;

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

}  // namespace

VignetteShape::VignetteShape(std::int32_t width, std::int32_t height)
    : middleColumn_(static_cast<float>(width) * 0.5f),
      middleRow_(static_cast<float>(height) * 0.5f),
      slope_(static_cast<float>(2.0 / (width + 1.0 + height))) {}

std::uint8_t VignetteShape::LumaOpacity(std::int32_t column, std::int32_t row) const {
  const float f = 1.0f - (std::fabs(static_cast<float>(column) - middleColumn_) +
                          std::fabs(static_cast<float>(row) - middleRow_)) *
                             slope_;
  return static_cast<std::uint8_t>(255 - static_cast<std::int32_t>(128.0f * f * f));
}

BarStep::BarStep(std::int32_t step, std::int32_t length) {
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

std::int32_t LitSegments(std::int32_t lit, std::int32_t length) {
  return static_cast<std::int32_t>(static_cast<float>(std::int64_t{kMeterSegments} * lit) /
                                   static_cast<float>(length));
}

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

std::uint8_t BarDither(std::int64_t left, std::int64_t canvasRow, std::int32_t column) {
  const auto row = static_cast<std::uint32_t>(canvasRow);
  return DitherOf(static_cast<std::uint32_t>(left) + Scramble((row << 13) ^ row) + 6u +
                  static_cast<std::uint32_t>(column));
}

std::uint8_t BarDitherPhase(std::int64_t canvasRow) {
  const auto row = static_cast<std::uint32_t>(canvasRow);
  return (Scramble((row << 13) ^ row) + 6u) & 7u;
}

std::int32_t PeakMarkerRows(std::int32_t length) {
  return std::max(length / 50, 1);
}

MeterColour BarChroma::Average(std::int64_t canvasRow, const MeterColour& colour) {
  const std::uint32_t parity = static_cast<std::uint32_t>(canvasRow) & 1u;
  last_[parity] = colour;
  return {colour.luma, static_cast<std::uint8_t>((last_[0].v + last_[1].v) >> 1),
          static_cast<std::uint8_t>((last_[0].u + last_[1].u) >> 1)};
}
