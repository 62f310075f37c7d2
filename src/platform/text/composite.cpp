#include "platform/text/composite.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace os {

namespace {

std::uint32_t Divide255(std::uint32_t value) {
  return (value + 127) / 255;
}

std::uint64_t Word(const std::uint8_t* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

constexpr int kStrip = 64;
using Strip = std::array<std::uint8_t, kStrip>;

bool IsInk(std::uint8_t byte) {
  return byte != 0;
}

// Each column's bytes of rows [top, bottom) or'ed together; 0 beyond count.
Strip InkOfStrip(PixelRows<const std::uint8_t> bytes, int first, int count, int top, int bottom) {
  Strip ink{};
  for (int y = top; y < bottom; ++y) {
    Strip row{};
    const std::uint8_t* const from = bytes.Row(y) + first;
    if (count == kStrip) {
      std::memcpy(row.data(), from, kStrip);
    } else {
      std::memcpy(row.data(), from, static_cast<std::size_t>(count));
    }
    for (std::size_t i = 0; i < kStrip; ++i) {
      ink[i] |= row[i];
    }
  }
  return ink;
}

bool AnyInk(const std::uint8_t* row, int width) {
  int x = 0;
  for (; x + kStrip <= width; x += kStrip) {
    std::uint64_t ink = 0;
    for (int i = 0; i < kStrip; i += 8) {
      ink |= Word(row + x + i);
    }
    if (ink != 0) {
      return true;
    }
  }
  return std::any_of(row + x, row + width, IsInk);
}

}  // namespace

BgraPixel ToBgra(std::uint32_t argb) {
  return {static_cast<std::uint8_t>(argb), static_cast<std::uint8_t>(argb >> 8),
          static_cast<std::uint8_t>(argb >> 16), static_cast<std::uint8_t>(argb >> 24)};
}

BgraPixel CompositePixel(const BgraPixel& under, const BgraPixel& colour, std::uint8_t coverage) {
  const std::uint32_t over = Divide255(std::uint32_t{colour[3]} * coverage);
  // Opacities times 255: the weights of the two colours and their sum.
  const std::uint32_t overWeight = over * 255;
  const std::uint32_t underWeight = under[3] * (255 - over);
  const std::uint32_t sum = overWeight + underWeight;
  if (sum == 0) {
    return under;
  }
  BgraPixel result;
  for (std::size_t i = 0; i < 3; ++i) {
    result[i] = static_cast<std::uint8_t>(
        (colour[i] * overWeight + under[i] * underWeight + sum / 2) / sum);
  }
  result[3] = static_cast<std::uint8_t>(Divide255(sum));
  return result;
}

void FillCoverageTable(std::uint32_t textColour, std::uint32_t clearColour, CoverageTable& table) {
  for (std::size_t coverage = 0; coverage < table.size(); ++coverage) {
    table[coverage] = CompositePixel(ToBgra(clearColour), ToBgra(textColour),
                                     static_cast<std::uint8_t>(coverage));
  }
}

// Row by row from above and from below, then strip by strip from both sides: what lies between is
// not read.
PixelBounds BoundsOfInk(PixelRows<const std::uint8_t> bytes, int width, int height) {
  int top = 0;
  while (top < height && !AnyInk(bytes.Row(top), width)) {
    ++top;
  }
  if (top == height) {
    return {};
  }
  int bottom = height;
  while (!AnyInk(bytes.Row(bottom - 1), width)) {
    --bottom;
  }
  int left = 0;
  int right = 0;
  for (int first = 0; first < width; first += kStrip) {
    const Strip columns = InkOfStrip(bytes, first, std::min(kStrip, width - first), top, bottom);
    const auto inked = std::find_if(columns.begin(), columns.end(), IsInk);
    if (inked != columns.end()) {
      left = first + static_cast<int>(inked - columns.begin());
      break;
    }
  }
  for (int last = width; last > 0; last -= kStrip) {
    const int count = std::min(kStrip, last);
    const Strip columns = InkOfStrip(bytes, last - count, count, top, bottom);
    const auto inked = std::find_if(columns.rbegin(), columns.rend(), IsInk);
    if (inked != columns.rend()) {
      right = last - count + static_cast<int>(columns.rend() - inked);
      break;
    }
  }
  return {left, top, right, bottom};
}

void FillPixels(PixelRows<std::uint8_t> target, const PixelBounds& bounds,
                const BgraPixel& colour) {
  if (bounds.Empty()) {
    return;
  }
  std::uint8_t* const first = target.Row(bounds.top) + std::ptrdiff_t{bounds.left} * 4;
  const std::ptrdiff_t columns = bounds.right - bounds.left;
  for (std::ptrdiff_t i = 0; i < columns; ++i) {
    std::memcpy(first + i * 4, colour.data(), 4);
  }
  for (int y = bounds.top + 1; y < bounds.bottom; ++y) {
    std::memcpy(target.Row(y) + std::ptrdiff_t{bounds.left} * 4, first,
                static_cast<std::size_t>(columns) * 4);
  }
}

void CompositeCoverage(PixelRows<const std::uint8_t> coverage, const CoverageTable& colours,
                       const PixelBounds& bounds, PixelRows<std::uint8_t> target) {
  for (int y = bounds.top; y < bounds.bottom; ++y) {
    const std::uint8_t* const from = coverage.Row(y);
    std::uint8_t* const to = target.Row(y);
    int x = bounds.left;
    const auto composite = [&](int end) {
      for (; x < end; ++x) {
        std::memcpy(to + std::ptrdiff_t{x} * 4, colours[from[x]].data(), 4);
      }
    };
    while (x + 8 <= bounds.right) {
      if (Word(from + x) == 0) {
        x += 8;  // nothing drawn: the clear colour stays
      } else {
        composite(x + 8);
      }
    }
    composite(bounds.right);
  }
}

void CompositeColour(PixelRows<const std::uint8_t> premultiplied, std::uint8_t opacity,
                     std::uint32_t clearColour, const PixelBounds& bounds,
                     PixelRows<std::uint8_t> target) {
  const BgraPixel under = ToBgra(clearColour);
  for (int y = bounds.top; y < bounds.bottom; ++y) {
    const std::uint8_t* const from = premultiplied.Row(y);
    std::uint8_t* const to = target.Row(y);
    for (int x = bounds.left; x < bounds.right; ++x) {
      std::uint32_t native = 0;
      std::memcpy(&native, from + std::ptrdiff_t{4} * x, 4);
      BgraPixel colour = ToBgra(native);
      const std::uint32_t alpha = colour[3];
      for (std::size_t i = 0; alpha != 0 && i < 3; ++i) {
        colour[i] =
            static_cast<std::uint8_t>(std::min((colour[i] * 255U + alpha / 2) / alpha, 255U));
      }
      const BgraPixel result = CompositePixel(under, colour, opacity);
      std::memcpy(to + std::ptrdiff_t{4} * x, result.data(), 4);
    }
  }
}

}  // namespace os
