// The arithmetic of a meter's look: how dark the panel is at a pixel, and the colour of each row of
// a bar. Floats where a float's rounding shows in the picture.
#pragma once

#include <cstdint>

// Sample values in a YV12 picture.
struct MeterColour {
  std::uint8_t luma;
  std::uint8_t v;
  std::uint8_t u;
};

inline constexpr std::int32_t kMeterSegments = 24;
inline constexpr std::uint8_t kNeutralChroma = 128;
inline constexpr std::uint8_t kPanelLuma = 16;
inline constexpr std::uint8_t kFrameLuma = 235;
inline constexpr std::uint8_t kFrameOpacity = 200;
inline constexpr std::uint8_t kBarEdgeOpacity = 128;
inline constexpr MeterColour kPeak{127, 240, 16};
inline constexpr std::uint8_t kPeakLumaOpacity = 160;
inline constexpr std::uint8_t kPeakChromaOpacity = 40;
inline constexpr MeterColour kAlarm{76, 255, 86};

// The darkening of a panel: strongest at the corners, half as strong in the middle.
class VignetteShape {
 public:
  VignetteShape(std::int32_t width, std::int32_t height);
  // Opacity of the black over the panel's pixel (column, row), 127 to 255. Chroma is blended
  // towards neutral with a fourth of it.
  std::uint8_t LumaOpacity(std::int32_t column, std::int32_t row) const;

 private:
  float middleColumn_;
  float middleRow_;
  float slope_;
};

// One row of a bar, counted from the foot: which segment it belongs to and how that is shaded
// there.
struct BarStep {
  BarStep(std::int32_t step, std::int32_t length);

  std::int32_t segment;  // 0 to 23
  float brightness;      // 0 at the segment's borders, 1 around its middle
  float highlight;       // a narrow reflection beside the middle
};

// How many of the 24 segments are lit when `lit` of `length` rows are.
std::int32_t LitSegments(std::int32_t lit, std::int32_t length);

// The colour of a bar's row: green, yellow and red segments, dimmed towards grey when unlit. A
// little noise, which depends on the row of the canvas, keeps large bars from looking flat.
MeterColour BarColour(const BarStep& step, std::int64_t canvasRow, bool lit);

// The low three bits of a bar's opaque luma, which keep large bars from banding. A pattern of eight
// columns, whose begin depends on the bar's left column and on the row of the canvas.
constexpr std::uint8_t DitherOf(std::uint32_t d) {
  return static_cast<std::uint8_t>((d * (15731u * d * d + 5u) + 5u) & 7u);
}
// Where the pattern of a row begins, mod 8, but for the bar's left column.
std::uint8_t BarDitherPhase(std::int64_t canvasRow);
// column: counted from left + 1.
std::uint8_t BarDither(std::int64_t left, std::int64_t canvasRow, std::int32_t column);

// Rows of the peak marker of a bar of that length.
std::int32_t PeakMarkerRows(std::int32_t length);

// A bar's chroma is the mean of its last even and its last odd row; before the first rows, neutral.
class BarChroma {
 public:
  // Takes the colour of the next row (from the foot up) and gives it back with the mean chroma.
  MeterColour Average(std::int64_t canvasRow, const MeterColour& colour);

 private:
  MeterColour last_[2] = {{0, kNeutralChroma, kNeutralChroma}, {0, kNeutralChroma, kNeutralChroma}};
};
