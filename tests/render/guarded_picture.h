// A YV12 frame in memory of its own, between bytes that must not change.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "render/yv12.h"

namespace support {

class GuardedPicture {
 public:
  GuardedPicture(std::int32_t width, std::int32_t height, std::uint8_t y = 16, std::uint8_t v = 128,
                 std::uint8_t u = 128)
      : width_(width),
        height_(height),
        bytes_(2 * kGuard + Yv12Picture{nullptr, width, height}.LumaBytes() +
                   2 * Yv12Picture{nullptr, width, height}.ChromaBytes(),
               kGuardByte) {
    Paint(y, v, u);
  }

  // Fills the frame with random samples, the same for the same seed.
  GuardedPicture& Scatter(std::uint32_t seed) {
    std::mt19937 random(seed);
    for (std::size_t i = kGuard; i < bytes_.size() - kGuard; ++i) {
      bytes_[i] = static_cast<std::uint8_t>(random());
    }
    return *this;
  }
  GuardedPicture& Paint(std::uint8_t y, std::uint8_t v, std::uint8_t u) {
    const Yv12Picture picture = view();
    std::fill_n(picture.Y(), picture.LumaBytes(), y);
    std::fill_n(picture.V(), picture.ChromaBytes(), v);
    std::fill_n(picture.U(), picture.ChromaBytes(), u);
    return *this;
  }

  Yv12Picture view() const { return {const_cast<std::uint8_t*>(data()), width_, height_}; }
  const std::uint8_t* data() const { return bytes_.data() + kGuard; }
  std::int32_t width() const { return width_; }
  std::int32_t height() const { return height_; }
  std::uint8_t Y(std::int32_t x, std::int32_t y) const {
    return view().Y()[std::ptrdiff_t{y} * width_ + x];
  }
  std::uint8_t V(std::int32_t x, std::int32_t y) const {
    return view().V()[ChromaIndex(x, y, width_)];
  }
  std::uint8_t U(std::int32_t x, std::int32_t y) const {
    return view().U()[ChromaIndex(x, y, width_)];
  }

  // Guards included.
  friend bool operator==(const GuardedPicture& a, const GuardedPicture& b) = default;

 private:
  static constexpr std::size_t kGuard = 256;
  static constexpr std::uint8_t kGuardByte = 0xA5;

  std::int32_t width_;
  std::int32_t height_;
  std::vector<std::uint8_t> bytes_;
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
inline Area ChangedArea(const GuardedPicture& a, const GuardedPicture& b) {
  Area area{a.width(), a.height(), 0, 0};
  for (std::int32_t y = 0; y < a.height(); ++y) {
    for (std::int32_t x = 0; x < a.width(); ++x) {
      if (a.Y(x, y) != b.Y(x, y)) {
        area = {std::min(area.left, x), std::min(area.top, y), std::max(area.right, x + 1),
                std::max(area.bottom, y + 1)};
      }
    }
  }
  return area.right == 0 ? Area{} : area;
}

}  // namespace support
