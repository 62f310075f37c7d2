#include "host/channel/picture/picture_meter.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace host {
namespace {

constexpr int kBlack = 16;
constexpr int kRange = 219;
constexpr int kRowStep = 2;
// One in so many samples may be brighter in a black picture.
constexpr std::int64_t kBrightShare = 50;

// Rows of these many samples cannot overflow the sums of 32 bits.
std::uint32_t CountBrighter(const std::uint8_t* row, int width, int threshold) {
  std::uint32_t count = 0;
  for (int x = 0; x < width; ++x) {
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

}  // namespace

PictureMeter::PictureMeter(const Settings& settings)
    : blackLuma_(kBlack + static_cast<int>(std::lround(kRange * settings.blackLevel / 100))),
      stillDifference_(kRange * std::pow(10.0, settings.stillLevel / 20)) {}

PictureCondition PictureMeter::Measure(const std::uint8_t* luma, int width, int height) {
  const int rows = (height + kRowStep - 1) / kRowStep;
  const auto rowBytes = static_cast<std::size_t>(width);
  const std::size_t size = rowBytes * static_cast<std::size_t>(rows);
  const bool comparable = kept_.size() == size;
  std::int64_t bright = 0;
  std::int64_t difference = 0;
  for (int row = 0; row < rows; ++row) {
    const std::uint8_t* const now = luma + static_cast<std::size_t>(row * kRowStep) * rowBytes;
    bright += CountBrighter(now, width, blackLuma_);
    if (comparable) {
      difference +=
          SumOfDifferences(now, kept_.data() + static_cast<std::size_t>(row) * rowBytes, width);
    }
  }
  const auto samples = static_cast<std::int64_t>(size);
  PictureCondition condition;
  condition.black = bright * kBrightShare <= samples;
  condition.still = comparable && static_cast<double>(difference) <=
                                      stillDifference_ * static_cast<double>(samples);
  if (!condition.still) {
    kept_.resize(size);
    for (int row = 0; row < rows; ++row) {
      std::memcpy(kept_.data() + static_cast<std::size_t>(row) * rowBytes,
                  luma + static_cast<std::size_t>(row * kRowStep) * rowBytes, rowBytes);
    }
  }
  return condition;
}

}  // namespace host
