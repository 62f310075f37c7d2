// A YV12 picture in memory of its own, between bytes that must not change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "render/yv12.h"

namespace support {

class GuardedPicture {
 public:
  GuardedPicture(std::int32_t width, std::int32_t height)
      : width_(width),
        height_(height),
        bytes_(2 * kGuard + Yv12Picture{nullptr, width, height}.LumaBytes() +
                   2 * Yv12Picture{nullptr, width, height}.ChromaBytes(),
               kGuardByte) {}

  // Every sample of any value, the same for the same seed.
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

  Yv12Picture view() { return {bytes_.data() + kGuard, width_, height_}; }
  const std::uint8_t* data() const { return bytes_.data() + kGuard; }
  std::uint8_t Y(std::int32_t x, std::int32_t y) {
    return view().Y()[std::ptrdiff_t{y} * width_ + x];
  }
  std::uint8_t V(std::int32_t x, std::int32_t y) { return view().V()[ChromaIndex(x, y, width_)]; }
  std::uint8_t U(std::int32_t x, std::int32_t y) { return view().U()[ChromaIndex(x, y, width_)]; }

  // Guards included.
  friend bool operator==(const GuardedPicture& a, const GuardedPicture& b) = default;
  bool GuardsIntact() const {
    for (std::size_t i = 0; i < kGuard; ++i) {
      if (bytes_[i] != kGuardByte || bytes_[bytes_.size() - 1 - i] != kGuardByte) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kGuard = 256;
  static constexpr std::uint8_t kGuardByte = 0xA5;

  std::int32_t width_;
  std::int32_t height_;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace support
