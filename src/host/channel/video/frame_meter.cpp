#include "host/channel/video/frame_meter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "util/yv12.h"

namespace host {
namespace {

constexpr int kBlack = 16;
constexpr int kRange = 219;
constexpr int kRowStep = 2;
// One in so many samples may be brighter in a black frame.
constexpr std::int64_t kBrightShare = 50;

// What is looked at of one plane: every other of its rows.
struct SampledPlane {
  const std::uint8_t* samples;
  int width;
  int rows;

  const std::uint8_t* Row(int row) const {
    return samples + static_cast<std::ptrdiff_t>(row) * kRowStep * width;
  }
  std::int64_t Count() const { return std::int64_t{width} * rows; }
};

SampledPlane PlaneOf(const std::uint8_t* samples, int width, int height) {
  return {samples, width, (height + kRowStep - 1) / kRowStep};
}

std::array<SampledPlane, 3> PlanesOf(const std::uint8_t* picture, int width, int height) {
  const qorp::ConstYv12Picture planes{picture, width, height};
  return {PlaneOf(planes.Y(), width, height),
          PlaneOf(planes.V(), planes.ChromaWidth(), planes.ChromaHeight()),
          PlaneOf(planes.U(), planes.ChromaWidth(), planes.ChromaHeight())};
}

using Lanes __attribute__((vector_size(16))) = std::uint8_t;
constexpr int kLanes = sizeof(Lanes);
// A lane counts no further.
constexpr int kMaxCounted = 255;

// Rows of the lengths that frames have overflow no sum of 32 bits.
std::uint32_t CountBrighter(const std::uint8_t* row, int width, std::uint8_t threshold) {
  std::uint32_t count = 0;
  int x = 0;
  while (x + kLanes <= width) {
    const int blocks = std::min((width - x) / kLanes, kMaxCounted);
    Lanes counts{};
    for (int block = 0; block < blocks; ++block, x += kLanes) {
      Lanes samples;
      std::memcpy(&samples, row + x, sizeof(samples));
      counts -= static_cast<Lanes>(samples > threshold);  // all bits of a lane: minus one
    }
    for (int lane = 0; lane < kLanes; ++lane) {
      count += counts[lane];
    }
  }
  for (; x < width; ++x) {
    count += row[x] > threshold ? 1U : 0U;
  }
  return count;
}

std::uint32_t SumOfDifferences(const std::uint8_t* a, const std::uint8_t* b, int width) {
  std::uint32_t sum = 0;
  for (int x = 0; x < width; ++x) {
    sum += static_cast<std::uint32_t>(std::abs(a[x] - b[x]));
  }
  return sum;
}

bool IsBlack(const SampledPlane& luma, std::uint8_t threshold) {
  std::int64_t bright = 0;
  for (int row = 0; row < luma.rows; ++row) {
    bright += CountBrighter(luma.Row(row), luma.width, threshold);
  }
  return bright * kBrightShare <= luma.Count();
}

}  // namespace

FrameMeter::FrameMeter(const config::AlarmOptions& options)
    : blackLuma_(static_cast<std::uint8_t>(
          kBlack + std::lround(kRange * std::clamp(options.black.level, 0.0, 100.0) / 100))),
      stillDifference_(kRange * std::pow(10.0, options.freeze.level / 20)) {}

FrameCondition FrameMeter::Measure(const std::uint8_t* picture, int width, int height) {
  FrameCondition condition;
  condition.black = IsBlack(PlaneOf(picture, width, height), blackLuma_);
  condition.still = IsStill(picture, width, height);
  if (!condition.still) {
    Keep(picture, width, height);
  }
  return condition;
}

bool FrameMeter::IsStill(const std::uint8_t* picture, int width, int height) const {
  const std::array<SampledPlane, 3> planes = PlanesOf(picture, width, height);
  std::int64_t all = 0;
  for (const SampledPlane& plane : planes) {
    all += plane.Count();
  }
  if (static_cast<std::int64_t>(kept_.size()) != all) {
    return false;
  }
  const std::uint8_t* kept = kept_.data();
  for (const SampledPlane& plane : planes) {
    const double most = stillDifference_ * static_cast<double>(plane.Count());
    std::int64_t difference = 0;
    for (int row = 0; row < plane.rows; ++row) {
      difference += SumOfDifferences(plane.Row(row), kept, plane.width);
      kept += plane.width;
    }
    if (static_cast<double>(difference) > most) {
      return false;
    }
  }
  return true;
}

void FrameMeter::Keep(const std::uint8_t* picture, int width, int height) {
  kept_.clear();
  for (const SampledPlane& plane : PlanesOf(picture, width, height)) {
    for (int row = 0; row < plane.rows; ++row) {
      kept_.insert(kept_.end(), plane.Row(row), plane.Row(row) + plane.width);
    }
  }
}

}  // namespace host
