// What does not change from frame to frame in a meter's look, computed once.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "render/kernels/strip_kernel.h"
#include "render/meter_colours.h"

// The darkening of a panel whose corner lies on even coordinates, as the kernels take it.
class VignetteTable {
 public:
  // Of a panel of width x height pixels, both at least 1.
  VignetteTable(std::int32_t width, std::int32_t height);

  // The opacity at each pixel, row by row, from that row on.
  const std::uint8_t* Luma(std::int32_t row) const {
    return luma_.data() + static_cast<std::size_t>(row) * width_;
  }
  // The factors at each chroma sample that the panel touches, ChromaWidth() x ChromaHeight(): one
  // layer for each pixel that a sample covers, in the order in which they are blended. Pixels
  // outside the panel fade nothing.
  const std::int16_t* Chroma(std::int32_t row) const {
    return chroma_.data() + static_cast<std::size_t>(row) * chromaWidth_ * kernels::kFadeLayers;
  }
  std::int32_t ChromaWidth() const { return chromaWidth_; }
  std::int32_t ChromaHeight() const { return chromaHeight_; }

 private:
  std::int32_t width_;
  std::int32_t chromaWidth_;
  std::int32_t chromaHeight_;
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

// The colours of the rows of all bars that stand on one row of the canvas.
class BarTable {
 public:
  // bottom: the canvas row of the foot; length: rows, at least 1.
  BarTable(std::int32_t bottom, std::int32_t length);

  std::int32_t Length() const { return length_; }
  // Puts the rows of a bar with that many of its 24 segments lit into `rows`, which has room for
  // Length() rows or more.
  void Show(std::int32_t litSegments, BarRows& rows) const;
  // The same for the pairs of rows whose chroma is all the bar's, from FirstPairRow() on: puts them
  // `step` pairs apart.
  void ShowPairs(std::int32_t litSegments, kernels::BarPair* to, std::int32_t step) const;
  std::int32_t FirstPairRow() const { return firstPairRow_; }
  std::int32_t Pairs() const { return static_cast<std::int32_t>(litPairs_.size()); }
  // One row of such a bar.
  MeterColour Row(std::int32_t litSegments, std::int32_t row) const;
  // For each row, the topmost first, where its dither pattern begins; the bar's left column is to
  // be added.
  const std::uint8_t* DitherPhases() const { return ditherPhases_.data(); }

 private:
  // Where the lit rows of a bar end.
  struct Boundary {
    std::int32_t step = 0;  // the first that is not lit, counted from the foot
    MeterColour colour{};   // of that row: its chroma is the mean of an unlit and a lit one
  };

  const Boundary& BoundaryOf(std::int32_t litSegments) const {
    return boundaries_[std::clamp(litSegments, 0, kMeterSegments)];
  }

  std::int32_t length_;
  std::int32_t firstPairRow_;
  BarRows lit_;
  BarRows unlit_;
  std::vector<kernels::BarPair> litPairs_;
  std::vector<kernels::BarPair> unlitPairs_;
  std::vector<std::uint8_t> ditherPhases_;
  std::array<Boundary, kMeterSegments + 1> boundaries_;  // by lit segments
};
