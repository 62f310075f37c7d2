#include "host/channel/video/colour_matrix.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

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

void MoveLuma(const std::uint8_t* from, const std::int16_t* correction, std::uint8_t* to,
              int count) {
  for (int i = 0; i < count; ++i) {
    const auto sum = static_cast<std::int16_t>(from[i] + correction[i]);
    to[i] = static_cast<std::uint8_t>(
        std::clamp(sum, static_cast<std::int16_t>(0), static_cast<std::int16_t>(255)));
  }
}

void ScaleLuma(const std::uint8_t* from, std::int32_t gain, const std::int32_t* correction,
               std::uint8_t* to, int count) {
  for (int i = 0; i < count; ++i) {
    to[i] = ToByte(gain * from[i] + correction[i]);
  }
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
  wholeCorrection_.resize(static_cast<std::size_t>(width));
  // Luma of studio range is only moved: then the correction is rounded for each chroma sample, with
  // the same result, and the pixels need but a sum of 16 bits.
  const bool moveOnly = lumaGain_ == kOne;
  for (int row = 0; row < height / 2; ++row) {
    ConvertChroma(u.data + row * u.stride, v.data + row * v.stride, outU.data + row * outU.stride,
                  outV.data + row * outV.stride, width / 2);
    if (moveOnly) {
      for (int i = 0; i < width; ++i) {
        wholeCorrection_[static_cast<std::size_t>(i)] =
            static_cast<std::int16_t>(correction_[static_cast<std::size_t>(i)] >> kBits);
      }
    }
    for (int half = 0; half < 2; ++half) {
      const std::uint8_t* const from = y.data + (2 * row + half) * y.stride;
      std::uint8_t* const to = outY.data + (2 * row + half) * outY.stride;
      if (moveOnly) {
        MoveLuma(from, wholeCorrection_.data(), to, width);
      } else {
        ScaleLuma(from, lumaGain_, correction_.data(), to, width);
      }
    }
  }
}

void ColourMatrix::ConvertChroma(const std::uint8_t* u, const std::uint8_t* v, std::uint8_t* outU,
                                 std::uint8_t* outV, int count) {
  // Sixteen bits each way: every processor multiplies those several at a time.
  const auto lumaOfU = static_cast<std::int16_t>(lumaOfU_);
  const auto lumaOfV = static_cast<std::int16_t>(lumaOfV_);
  const auto uOfU = static_cast<std::int16_t>(uOfU_);
  const auto uOfV = static_cast<std::int16_t>(uOfV_);
  const auto vOfU = static_cast<std::int16_t>(vOfU_);
  const auto vOfV = static_cast<std::int16_t>(vOfV_);
  constexpr std::int32_t kOffset = 128 * kOne + kOne / 2;
  std::int32_t* const correction = correction_.data();
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    const auto cu = static_cast<std::int16_t>(u[i] - 128);
    const auto cv = static_cast<std::int16_t>(v[i] - 128);
    const std::int32_t luma = lumaOffset_ + lumaOfU * cu + lumaOfV * cv;
    correction[2 * i] = luma;
    correction[2 * i + 1] = luma;
    outU[i] = ToByte(uOfU * cu + uOfV * cv + kOffset);
    outV[i] = ToByte(vOfU * cu + vOfV * cv + kOffset);
  }
}

}  // namespace host
