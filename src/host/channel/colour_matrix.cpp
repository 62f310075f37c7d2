#include "host/channel/colour_matrix.h"

#include <algorithm>
#include <cmath>

namespace host {

namespace {

constexpr int kBits = 14;
constexpr std::int32_t kOne = 1 << kBits;

std::int32_t Fixed(double value) {
  return static_cast<std::int32_t>(std::lround(value * kOne));
}

std::uint8_t ToByte(std::int32_t fixed) {
  return static_cast<std::uint8_t>(std::clamp(fixed >> kBits, 0, 255));
}

}  // namespace

ColourMatrix::ColourMatrix(LumaWeights source, bool fullRange)
    : identity_(source == kBt601 && !fullRange) {
  // With y in 0..1 and u, v in -0.5..0.5 of the source:
  //   R = y + r v,  B = y + b u,  G = y - (kB b u + kR r v) / kG.
  const double kR = source.red;
  const double kB = source.blue;
  const double kG = 1.0 - kR - kB;
  const double r = 2.0 * (1.0 - kR);
  const double b = 2.0 * (1.0 - kB);
  // The luma of BT.601 of those, as y + yu u + yv v, and its chroma.
  const double toR = kBt601.red;
  const double toB = kBt601.blue;
  const double toG = 1.0 - toR - toB;
  const double yu = toB * b - toG * kB * b / kG;
  const double yv = toR * r - toG * kR * r / kG;
  const double uScale = 1.0 / (2.0 * (1.0 - toB));
  const double vScale = 1.0 / (2.0 * (1.0 - toR));

  const double lumaRange = fullRange ? 255.0 : 219.0;
  const double chromaRange = fullRange ? 255.0 : 224.0;
  const double lumaBlack = fullRange ? 0.0 : 16.0;
  lumaGain_ = Fixed(219.0 / lumaRange);
  lumaOffset_ = Fixed(16.0 - lumaBlack * 219.0 / lumaRange) + kOne / 2;
  lumaOfU_ = Fixed(219.0 / chromaRange * yu);
  lumaOfV_ = Fixed(219.0 / chromaRange * yv);
  const double chroma = 224.0 / chromaRange;
  uOfU_ = Fixed(chroma * uScale * (b - yu));
  uOfV_ = Fixed(chroma * uScale * -yv);
  vOfU_ = Fixed(chroma * vScale * -yu);
  vOfV_ = Fixed(chroma * vScale * (r - yv));
}

void ColourMatrix::Apply(ConstPlane y, ConstPlane u, ConstPlane v, Plane outY, Plane outU,
                         Plane outV, int width, int height) {
  correction_.resize(static_cast<std::size_t>(width));
  std::int32_t* const correction = correction_.data();
  const std::int32_t chromaOffset = 128 * kOne + kOne / 2;
  for (int row = 0; row < height / 2; ++row) {
    const std::uint8_t* const inU = u.data + row * u.stride;
    const std::uint8_t* const inV = v.data + row * v.stride;
    std::uint8_t* const toU = outU.data + row * outU.stride;
    std::uint8_t* const toV = outV.data + row * outV.stride;
    for (int i = 0; i < width / 2; ++i) {
      const std::int32_t cu = inU[i] - 128;
      const std::int32_t cv = inV[i] - 128;
      const std::int32_t luma = lumaOffset_ + lumaOfU_ * cu + lumaOfV_ * cv;
      correction[2 * i] = luma;
      correction[2 * i + 1] = luma;
      toU[i] = ToByte(uOfU_ * cu + uOfV_ * cv + chromaOffset);
      toV[i] = ToByte(vOfU_ * cu + vOfV_ * cv + chromaOffset);
    }
    for (int half = 0; half < 2; ++half) {
      const std::uint8_t* const inY = y.data + (2 * row + half) * y.stride;
      std::uint8_t* const toY = outY.data + (2 * row + half) * outY.stride;
      for (int i = 0; i < width; ++i) {
        toY[i] = ToByte(lumaGain_ * inY[i] + correction[i]);
      }
    }
  }
}

}  // namespace host
