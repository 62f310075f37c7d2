// The mosaics that the drawing is measured with, and pictures to draw them from.
#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <string_view>
#include <vector>

#include "render/yv12.h"

namespace bench {

struct Workload {
  std::string_view name;
  std::int32_t canvasWidth;
  std::int32_t canvasHeight;
  std::int32_t columns;  // of windows; as many rows
  std::int32_t windowWidth;
  std::int32_t windowHeight;
  double budget;  // of a composed frame, in copies of its windows

  std::int32_t Windows() const { return columns * columns; }
  std::int32_t X(std::int32_t window) const {
    const std::int32_t cell = canvasWidth / columns;
    return (window % columns * cell + (cell - windowWidth) / 2) / 2 * 2;
  }
  std::int32_t Y(std::int32_t window) const {
    return window / columns * (canvasHeight / columns) / 2 * 2;
  }
};

inline constexpr std::array kWorkloads{Workload{"W4", 1920, 1080, 2, 896, 504, 1.5},
                                       Workload{"W16", 1920, 1080, 4, 416, 234, 2.0},
                                       Workload{"W36", 3840, 2160, 6, 512, 288, 1.4}};

// Pictures of one size in rotation, more than the caches hold: each frame of a live mosaic brings
// new ones.
class PictureRing {
 public:
  PictureRing(std::int32_t width, std::int32_t height, std::size_t count, std::uint32_t seed)
      : width_(width), height_(height), pictures_(count) {
    std::mt19937 random(seed);
    for (std::vector<std::uint8_t>& picture : pictures_) {
      picture.resize(static_cast<std::size_t>(width) * height * 3 / 2);
      for (std::uint8_t& sample : picture) {
        sample = static_cast<std::uint8_t>(16 + random() % 220);
      }
    }
  }

  Yv12Picture At(std::size_t index) {
    return {pictures_[index % pictures_.size()].data(), width_, height_};
  }

 private:
  std::int32_t width_;
  std::int32_t height_;
  std::vector<std::vector<std::uint8_t>> pictures_;
};

}  // namespace bench
