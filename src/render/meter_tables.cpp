#include "render/meter_tables.h"

#include <algorithm>

#include "render/kernels/drawing_kernels.h"

VignetteTable::VignetteTable(std::int32_t width, std::int32_t height)
    : width_(width),
      chromaWidth_((width + 1) / 2),
      chromaHeight_((height + 1) / 2),
      luma_(static_cast<std::size_t>(width) * height),
      chroma_(static_cast<std::size_t>(chromaWidth_) * chromaHeight_ * kernels::kFadeLayers,
              kernels::FadeFactor(0)) {
  const VignetteShape shape(width, height);
  for (std::int32_t row = 0; row < height; ++row) {
    for (std::int32_t column = 0; column < width; ++column) {
      const std::uint8_t opacity = shape.LumaOpacity(column, row);
      luma_[static_cast<std::size_t>(row) * width + column] = opacity;
      // A sample's four pixels are its four layers.
      const std::size_t line = static_cast<std::size_t>(row / 2) * kernels::kFadeLayers +
                               static_cast<std::size_t>(row % 2 * 2 + column % 2);
      chroma_[line * chromaWidth_ + column / 2] = kernels::FadeFactor(opacity / 4);
    }
  }
}

BarTable::BarTable(std::int32_t bottom, std::int32_t length)
    : length_(length),
      firstPairRow_((bottom - length + 1) & 1),
      lit_(length),
      unlit_(length),
      ditherPhases_(length) {
  BarChroma litChroma;
  BarChroma unlitChroma;
  MeterColour litBelow{};
  std::int32_t segments = 0;  // whose boundary is known
  for (std::int32_t step = 0; step < length; ++step) {
    const std::int64_t row = std::int64_t{bottom} - step;
    const BarStep at(step, length);
    const MeterColour lit = BarColour(at, row, true);
    const MeterColour unlit = BarColour(at, row, false);
    for (; segments <= std::min(at.segment, kMeterSegments); ++segments) {
      BarChroma mixed;
      if (step > 0) {
        mixed.Average(row + 1, litBelow);
      }
      boundaries_[segments] = {step, mixed.Average(row, unlit)};
    }
    litBelow = lit;

    const std::int32_t index = length - 1 - step;
    const auto put = [index](BarRows& rows, const MeterColour& colour) {
      rows.luma[index] = colour.luma;
      rows.v[index] = colour.v;
      rows.u[index] = colour.u;
    };
    put(lit_, litChroma.Average(row, lit));
    put(unlit_, unlitChroma.Average(row, unlit));
    ditherPhases_[index] = BarDitherPhase(row);
  }
  for (; segments <= kMeterSegments; ++segments) {
    boundaries_[segments] = {length, {}};
  }
  for (std::int32_t row = firstPairRow_; row + 1 < length; row += 2) {
    const auto pair = [row](const BarRows& rows) {
      return kernels::BarPair{{rows.luma[row], rows.luma[row + 1]},
                              {rows.v[row], rows.v[row + 1]},
                              {rows.u[row], rows.u[row + 1]},
                              {}};
    };
    litPairs_.push_back(pair(lit_));
    unlitPairs_.push_back(pair(unlit_));
  }
}

void BarTable::Show(std::int32_t litSegments, BarRows& rows) const {
  const Boundary& boundary = BoundaryOf(litSegments);
  const std::int32_t unlitRows = length_ - boundary.step;
  const auto join = [&](std::vector<std::uint8_t> BarRows::*kind, std::uint8_t atBoundary) {
    const std::vector<std::uint8_t>& lit = lit_.*kind;
    const std::vector<std::uint8_t>& unlit = unlit_.*kind;
    std::vector<std::uint8_t>& to = rows.*kind;
    std::copy_n(unlit.begin(), unlitRows, to.begin());
    std::copy(lit.begin() + unlitRows, lit.end(), to.begin() + unlitRows);
    if (unlitRows > 0) {
      to[unlitRows - 1] = atBoundary;
    }
  };
  join(&BarRows::luma, boundary.colour.luma);
  join(&BarRows::v, boundary.colour.v);
  join(&BarRows::u, boundary.colour.u);
}

MeterColour BarTable::Row(std::int32_t litSegments, std::int32_t row) const {
  const Boundary& boundary = BoundaryOf(litSegments);
  const std::int32_t unlitRows = length_ - boundary.step;
  if (row == unlitRows - 1) {
    return boundary.colour;
  }
  const BarRows& rows = row < unlitRows ? unlit_ : lit_;
  return {rows.luma[row], rows.v[row], rows.u[row]};
}

void BarTable::ShowPairs(std::int32_t litSegments, kernels::BarPair* to, std::int32_t step) const {
  const std::int32_t pairs = Pairs();
  // The first pair with a row that is not unlit like those above it: the one of the boundary.
  const std::int32_t lastUnlit = length_ - BoundaryOf(litSegments).step - 1 - firstPairRow_;
  const std::int32_t mixed = lastUnlit < 0 ? -1 : lastUnlit / 2;
  for (std::int32_t pair = 0; pair < pairs; ++pair, to += step) {
    *to = pair < mixed ? unlitPairs_[pair] : litPairs_[pair];
    if (pair == mixed) {
      for (std::int32_t row = 0; row < 2; ++row) {
        const MeterColour colour = Row(litSegments, firstPairRow_ + 2 * pair + row);
        to->luma[row] = colour.luma;
        to->v[row] = colour.v;
        to->u[row] = colour.u;
      }
    }
  }
}
