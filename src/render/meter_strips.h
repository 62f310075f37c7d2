// How the bars of a panel are cut into strips for the fastest of the kernels.
#pragma once

#include <cstdint>
#include <vector>

#include "render/kernels/strip_kernel.h"

// The strips of all panels of one size with that many bars, whose corner lies on even coordinates.
class StripTable {
 public:
  // Narrower bars are drawn one by one: of those, three could meet in one strip.
  static constexpr std::int32_t kLeastBarWidth = 4;

  // width and height: of the panel, in pixels. Its bars are at least kLeastBarWidth wide and stand
  // inside it, below the band and above the frame.
  StripTable(std::int32_t width, std::int32_t height, std::int32_t channels);

  // The pairs of rows that bars fill, counted in pairs from the panel's top.
  std::int32_t FirstPair() const { return firstPair_; }
  std::int32_t EndPair() const { return endPair_; }
  // Completes the run but for the bars' samples and the places in a picture.
  void Describe(kernels::BarRun& run) const;

 private:
  void AddStrip(std::int32_t column, std::int32_t firstOwn, std::int32_t width,
                std::int32_t channels);
  void Darken(std::int32_t width, std::int32_t height);

  std::int32_t firstPair_;
  std::int32_t endPair_;
  std::vector<std::int32_t> firstOwn_;  // for each strip, the first column that no other one has
  std::vector<kernels::BarStrip> strips_;
  std::vector<kernels::StripPair> darkening_;
  std::vector<kernels::BarFill> fills_;
};
