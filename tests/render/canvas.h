// A YV12 picture that owns its samples, and what tests ask of one.
#pragma once

#include <cstdint>
#include <vector>

#include "render/yv12.h"

struct Canvas {
  Canvas(std::int32_t width, std::int32_t height, std::uint8_t y = 16, std::uint8_t v = 128,
         std::uint8_t u = 128);

  Yv12Picture Picture() { return {bytes.data(), width, height}; }
  std::uint8_t Luma(std::int32_t x, std::int32_t y) const {
    return bytes[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                 static_cast<std::size_t>(x)];
  }
  // Everything of both planes.
  std::vector<std::uint8_t> V() const;
  std::vector<std::uint8_t> U() const;
  // Back to one colour.
  void Fill(std::uint8_t y, std::uint8_t v, std::uint8_t u);
  bool operator==(const Canvas&) const = default;

  std::int32_t width;
  std::int32_t height;
  std::vector<std::uint8_t> bytes;
};

// Columns [left, right) and rows [top, bottom).
struct Area {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
  bool operator==(const Area&) const = default;
};

// The smallest area that holds every luma sample that differs; empty when none does.
Area ChangedArea(const Canvas& a, const Canvas& b);
