#include "render/meter_strips.h"

#include <algorithm>
#include <cstddef>

#include "render/meter_colours.h"
#include "render/meters.h"

namespace {

constexpr std::int32_t kColumns = 8;  // of a strip
constexpr std::uint8_t kPickNothing = 0x80;

// Opacity 0: a lane becomes (lane * 255 + 128) / 255.
constexpr std::uint16_t kKeepAll = 255;
constexpr std::uint16_t kRounding = 128;
constexpr std::uint16_t kKeepEdge = 255 - kBarEdgeOpacity;
constexpr std::uint16_t kKeepFrame = 255 - kFrameOpacity;
static_assert(kBarEdgeOpacity == 128, "the kernel multiplies the samples of a bar by 128");

// Where a byte of a bar's pair of rows lies in the vector of a strip's two bars.
constexpr std::uint8_t Pick(std::int32_t bar, std::size_t member, std::int32_t row) {
  return static_cast<std::uint8_t>(static_cast<std::size_t>(bar) * sizeof(kernels::BarPair) +
                                   member + static_cast<std::size_t>(row));
}

}  // namespace

StripTable::StripTable(std::int32_t width, std::int32_t height, std::int32_t channels) {
  const MeterPanel panel({}, 0, 0, width, height, channels);
  const std::int32_t foot = height - 1 - panel.margin;
  firstPair_ = (foot - panel.barLength + 2) / 2;
  endPair_ = std::max((foot + 1) / 2, firstPair_);

  std::int32_t left = panel.margin;
  for (std::int32_t i = 0; i < channels; ++i) {
    const std::int32_t right = left + panel.barWidth - 1;
    // Chroma samples that a column between the edges covers are opaque.
    const std::int32_t sample = (left + 1) / 2;
    fills_.push_back({left + 1, panel.barWidth - 2, sample, (right - 1) / 2 - sample + 1});
    left += panel.barWidth + panel.gap;
  }

  // From each column on that shows and is not covered yet. The last strip ends with the panel and
  // leaves to the one before it what that has.
  const auto opaque = [this](std::int32_t column) {
    return std::any_of(fills_.begin(), fills_.end(), [column](const kernels::BarFill& fill) {
      return column >= fill.column && column < fill.column + fill.columns;
    });
  };
  const std::int32_t evenWidth = (width + 1) / 2 * 2;
  std::int32_t covered = 0;
  for (std::int32_t column = 0; column < width; ++column) {
    if (column < covered || opaque(column)) {
      continue;
    }
    const std::int32_t firstOwn = std::max(column / 2 * 2, covered);
    AddStrip(std::min(firstOwn, evenWidth - kColumns), firstOwn, width, channels);
    covered = firstOwn + kColumns;
  }
  Darken(width, height);
}

void StripTable::AddStrip(std::int32_t column, std::int32_t firstOwn, std::int32_t width,
                          std::int32_t channels) {
  kernels::BarStrip strip{};
  strip.column = column;
  strip.sample = column / 2;
  const auto left = [this](std::int32_t bar) { return fills_[bar].column - 1; };
  const auto right = [this](std::int32_t bar) { return fills_[bar].column + fills_[bar].columns; };
  strip.firstBar = 0;
  while (strip.firstBar < channels - 1 && right(strip.firstBar) < column) {
    ++strip.firstBar;
  }
  std::fill(std::begin(strip.lumaBars), std::end(strip.lumaBars), kPickNothing);
  std::fill(std::begin(strip.lowerBars), std::end(strip.lowerBars), kPickNothing);
  std::fill(std::begin(strip.upperBars), std::end(strip.upperBars), kPickNothing);
  std::fill(std::begin(strip.chromaKept), std::end(strip.chromaKept), kKeepAll);

  for (std::int32_t row = 0; row < 2; ++row) {
    for (std::int32_t i = 0; i < kColumns; ++i) {
      const std::int32_t lane = row * kColumns + i;
      const std::int32_t at = column + i;
      strip.lumaKept[lane] = kKeepAll;
      strip.lumaAdded[lane] = kRounding;
      if (at < firstOwn) {
        continue;
      }
      if (at == 0 || at == width - 1) {
        strip.lumaKept[lane] = kKeepFrame;
        strip.lumaAdded[lane] = kFrameLuma * kFrameOpacity + kRounding;
      }
      for (std::int32_t bar = 0; bar < 2 && strip.firstBar + bar < channels; ++bar) {
        if (at == left(strip.firstBar + bar) || at == right(strip.firstBar + bar)) {
          strip.lumaKept[lane] = kKeepEdge;
          strip.lumaBars[std::ptrdiff_t{2} * lane] =
              Pick(bar, offsetof(kernels::BarPair, luma), row);
        }
      }
    }
  }
  for (std::int32_t i = 0; i < kColumns / 2; ++i) {
    const std::int32_t sample = strip.sample + i;
    for (std::int32_t bar = 0; bar < 2 && strip.firstBar + bar < channels; ++bar) {
      const kernels::BarFill& fill = fills_[strip.firstBar + bar];
      const bool edge =
          (sample == left(strip.firstBar + bar) / 2 && sample < fill.sample) ||
          (sample == right(strip.firstBar + bar) / 2 && sample >= fill.sample + fill.samples);
      if (!edge || 2 * sample < firstOwn) {
        continue;
      }
      for (const auto& [lane, member] : {std::pair{i, offsetof(kernels::BarPair, v)},
                                         {i + kColumns / 2, offsetof(kernels::BarPair, u)}}) {
        strip.chromaKept[lane] = kKeepEdge;
        strip.upperBars[std::ptrdiff_t{2} * lane] = Pick(bar, member, 0);
        strip.lowerBars[std::ptrdiff_t{2} * lane] = Pick(bar, member, 1);
      }
    }
  }
  strips_.push_back(strip);
  firstOwn_.push_back(firstOwn);
}

void StripTable::Darken(std::int32_t width, std::int32_t height) {
  const VignetteShape shape(width, height);
  for (std::int32_t pair = firstPair_; pair < endPair_; ++pair) {
    for (std::size_t s = 0; s < strips_.size(); ++s) {
      kernels::StripPair darkening;
      for (std::int32_t lane = 0; lane < 2 * kColumns; ++lane) {
        const std::int32_t row = lane / kColumns;
        const std::int32_t column = strips_[s].column + lane % kColumns;
        const bool own = column >= firstOwn_[s] && column < width;
        const std::uint8_t opacity = own ? shape.LumaOpacity(column, 2 * pair + row) : 0;
        darkening.lumaKept[lane] = 255 - opacity;
        // The samples of V, then the same for those of U.
        const std::int32_t layer = row * 2 + column % 2;
        const std::int32_t sample = lane % kColumns / 2;
        darkening.fade[layer][sample] = kernels::FadeFactor(opacity / 4);
        darkening.fade[layer][sample + kColumns / 2] = darkening.fade[layer][sample];
      }
      darkening_.push_back(darkening);
    }
  }
}

void StripTable::Describe(kernels::BarRun& run) const {
  run.pairs = endPair_ - firstPair_;
  run.panelLuma = kPanelLuma;
  run.strips = strips_;
  run.darkening = darkening_.data();
  run.fills = fills_;
}
