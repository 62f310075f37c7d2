#include "platform/text/composite.h"

#include <algorithm>
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

bool AnyInk(const std::uint8_t* row, int width) {
  int x = 0;
  for (; x + 8 <= width; x += 8) {
    if (Word(row + x) != 0) {
      return true;
    }
  }
  for (; x < width; ++x) {
    if (row[x] != 0) {
      return true;
    }
  }
  return false;
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

void CoverageColours::Set(std::uint32_t textColour, std::uint32_t clearColour) {
  if (textColour == textColour_ && clearColour == clearColour_) {
    return;
  }
  textColour_ = textColour;
  clearColour_ = clearColour;
  for (std::size_t coverage = 0; coverage < colours_.size(); ++coverage) {
    colours_[coverage] = CompositePixel(ToBgra(clearColour), ToBgra(textColour),
                                        static_cast<std::uint8_t>(coverage));
  }
}

PixelBounds BoundsOfInk(PixelRows<const std::uint8_t> bytes, int width, int height) {
  int top = 0;
  while (top < height && !AnyInk(bytes.Row(top), width)) {
    ++top;
  }
  int bottom = height;
  while (bottom > top && !AnyInk(bytes.Row(bottom - 1), width)) {
    --bottom;
  }
  // From both sides inwards: a row is read only as far as it may still widen the bounds.
  int left = width;
  int right = 0;
  for (int y = top; y < bottom; ++y) {
    const std::uint8_t* const row = bytes.Row(y);
    int x = 0;
    while (x + 8 <= left && Word(row + x) == 0) {
      x += 8;
    }
    while (x < left && row[x] == 0) {
      ++x;
    }
    left = std::min(left, x);
    x = width;
    while (x - 8 >= right && Word(row + x - 8) == 0) {
      x -= 8;
    }
    while (x > right && row[x - 1] == 0) {
      --x;
    }
    right = std::max(right, x);
  }
  return top == bottom ? PixelBounds{} : PixelBounds{left, top, right, bottom};
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

void CompositeCoverage(PixelRows<const std::uint8_t> coverage, const CoverageColours& colours,
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
      std::memcpy(&native, from + x * 4, 4);
      BgraPixel colour = ToBgra(native);
      const std::uint32_t alpha = colour[3];
      for (std::size_t i = 0; alpha != 0 && i < 3; ++i) {
        colour[i] =
            static_cast<std::uint8_t>(std::min((colour[i] * 255U + alpha / 2) / alpha, 255U));
      }
      const BgraPixel result = CompositePixel(under, colour, opacity);
      std::memcpy(to + x * 4, result.data(), 4);
    }
  }
}

}  // namespace os
