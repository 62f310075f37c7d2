// What a meter looks like: how dark its panel is at a pixel, and the colours of its bars. Both
// depend on the position and the size of a panel only, so they are computed once and kept.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

// Sample values in a YV12 frame.
struct MeterColour {
  std::uint8_t luma;
  std::uint8_t v;
  std::uint8_t u;
};

inline constexpr std::int32_t kMeterSegments = 24;
inline constexpr std::uint8_t kPanelLuma = 16;
inline constexpr std::uint8_t kFrameLuma = 235;
inline constexpr std::uint8_t kFrameOpacity = 200;
inline constexpr MeterColour kPeak{127, 240, 16};
inline constexpr std::uint8_t kPeakLumaOpacity = 160;
inline constexpr std::uint8_t kPeakChromaOpacity = 40;
inline constexpr MeterColour kAlarm{76, 255, 86};

// How many of the 24 segments are lit when `lit` of `length` rows are.
std::int32_t LitSegments(std::int32_t lit, std::int32_t length);

// Rows of the peak marker of a bar of that length.
std::int32_t PeakMarkerRows(std::int32_t length);

// The darkening of a part of a panel, as the kernels take it: strongest at the corners of the
// panel, half as strong in its middle.
class VignetteTable {
 public:
  // The part of a panel of width x height pixels that begins at (column, row), both even, and has
  // columns x rows pixels and chromaColumns x chromaRows chroma samples.
  VignetteTable(std::int64_t width, std::int64_t height, std::int64_t column, std::int64_t row,
                std::int64_t columns, std::int64_t rows, std::int64_t chromaColumns,
                std::int64_t chromaRows);

  // The opacity of the black over each pixel, row by row.
  const std::uint8_t* Luma() const { return luma_.data(); }
  // The factors of each chroma sample: one layer for each pixel that a sample covers, in the order
  // in which they are blended. Pixels outside the part do not fade.
  const std::int16_t* Chroma() const { return chroma_.data(); }

 private:
  std::vector<std::uint8_t> luma_;
  std::vector<std::int16_t> chroma_;
};

// The samples of a bar's rows, one array for each kind, the topmost row first.
struct BarRows {
  explicit BarRows(std::int32_t length) : luma(length), v(length), u(length) {}

  std::vector<std::uint8_t> luma;
  std::vector<std::uint8_t> v;
  std::vector<std::uint8_t> u;
};

// Colours of rows of the bars that have the same length and the same bottom row on the canvas.
class BarTable {
 public:
  // bottom: the canvas row of the bars' last row; length: their rows, at least 1. The table has
  // `count` of them from row `first` on, counted from the top.
  BarTable(std::int64_t bottom, std::int64_t length, std::int64_t first, std::int64_t count);

  // Puts the rows of a bar with that many of its 24 segments lit into `rows`, which holds
  // all rows of the table or more.
  void Show(std::int32_t litSegments, BarRows& rows) const;
  // For each row, the topmost first, where its dither pattern begins; the bar's left column is to
  // be added.
  const std::uint8_t* DitherPhases() const { return ditherPhases_.data(); }

 private:
  // Where the lit rows of a bar end.
  struct Boundary {
    std::int32_t row = -1;  // the last unlit one, counted from the table's first; it may lie below
    MeterColour colour{};   // of that row: its chroma is the mean of an unlit and a lit one
  };

  std::int32_t count_;
  BarRows lit_;
  BarRows unlit_;
  std::vector<std::uint8_t> ditherPhases_;
  std::array<Boundary, kMeterSegments + 1> boundaries_;  // by lit segments
};
