// The mosaics with which drawing is measured.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "render/drawing_engine.h"
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

// Frames of one size in rotation, more than the caches hold: each frame of a live mosaic brings new
// ones.
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

using Nanoseconds = double;

// Processor time of this process, which has one thread: other load on the machine does not count,
// except for its effect on the caches.
inline Nanoseconds Now() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
}

// A frame is drawn with one part more each time: what a part adds is its stage.
enum Stage { kCopy, kLabels, kSelectors, kMeters, kStages };

class Mosaic {
 public:
  explicit Mosaic(const bench::Workload& workload)
      : workload_(workload),
        canvases_(workload.canvasWidth, workload.canvasHeight, 4, 1),
        labels_(workload.Windows()),
        noLabels_(workload.Windows()),
        windows_(static_cast<std::size_t>(workload.Windows())),
        overlays_(windows_.size()) {
    for (std::int32_t i = 0; i < workload.Windows(); ++i) {
      sources_.emplace_back(workload.windowWidth, workload.windowHeight, 3, 2 + i);
      windows_[i] = {
          nullptr, true, workload.X(i), workload.Y(i), workload.windowWidth, workload.windowHeight};
    }
    ChangeTexts();
  }

  // The reference: the windows' rows and nothing else.
  Nanoseconds CopyRows() {
    Prepare();
    const Yv12Picture canvas = canvases_.At(frame_);
    const Nanoseconds start = Now();
    for (std::int32_t i = 0; i < workload_.Windows(); ++i) {
      const Yv12Picture source = sources_[i].At(frame_);
      const std::int32_t x = workload_.X(i);
      const std::int32_t y = workload_.Y(i);
      CopyPlane(source.Y(), source.width, source.height, canvas.Y() + y * canvas.width + x,
                canvas.width);
      const std::ptrdiff_t at = ChromaIndex(x, y, canvas.width);
      CopyPlane(source.V(), source.width / 2, source.height / 2, canvas.V() + at, canvas.width / 2);
      CopyPlane(source.U(), source.width / 2, source.height / 2, canvas.U() + at, canvas.width / 2);
    }
    return Now() - start;
  }

  // A frame with everything up to that stage.
  Nanoseconds Compose(Stage last = kMeters) {
    Prepare();
    const std::size_t half = windows_.size() / 2;
    for (std::size_t i = 0; i < windows_.size(); ++i) {
      overlays_[i].selected = last >= kSelectors && (i == 0 || i == half);
      overlays_[i].metered = last >= kMeters;
    }
    const Nanoseconds start = Now();
    drawer_.Draw(last >= kLabels ? labels_ : noLabels_, windows_, overlays_, canvases_.At(frame_),
                 {16, 9});
    return Now() - start;
  }

  std::string LabelText(std::int32_t window) const {
    return "Channel " + std::to_string(window + 1) + " · " + std::to_string(texts_ * 37 + window);
  }
  void ChangeTexts() {
    ++texts_;
    for (std::int32_t i = 0; i < workload_.Windows(); ++i) {
      SetLabelText(labels_, i, LabelText(i));
    }
  }

 private:
  static void CopyPlane(const std::uint8_t* from, std::int32_t width, std::int32_t rows,
                        std::uint8_t* to, std::int32_t stride) {
    for (std::int32_t row = 0; row < rows; ++row) {
      std::memcpy(to, from, static_cast<std::size_t>(width));
      from += width;
      to += stride;
    }
  }

  // The next frame: other source frames on another canvas, other levels.
  void Prepare() {
    ++frame_;
    for (std::size_t i = 0; i < windows_.size(); ++i) {
      windows_[i].picture = sources_[i].At(frame_).data;
      const auto phase = static_cast<float>(frame_ * (i + 1));
      overlays_[i].channels = 2;
      overlays_[i].levels = {0.5f + 0.45f * std::sin(phase * 0.37f),
                             0.3f + 0.25f * std::sin(phase * 0.73f)};
      overlays_[i].peaks = {0.9f, 0.6f};
      overlays_[i].alarm = i % 8 == 0;
    }
  }

  const bench::Workload& workload_;
  bench::PictureRing canvases_;
  std::vector<bench::PictureRing> sources_;
  ::Compose labels_;
  ::Compose noLabels_;
  std::vector<WindowState> windows_;
  std::vector<WindowOverlays> overlays_;
  MosaicDrawer drawer_;
  std::size_t frame_ = 0;
  int texts_ = 0;
};

inline Nanoseconds Median(std::vector<Nanoseconds> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace bench
