#include "host/channel/video/colour.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

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

void ColourMatrix::Apply(ConstPlaneView y, ConstPlaneView u, ConstPlaneView v, PlaneView outY,
                         PlaneView outU, PlaneView outV, int width, int height) {
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

namespace {

// In cd/m2.
constexpr int kGraphicsWhite = 203;
constexpr int kDefaultPeak = 1000;
constexpr int kLowestPeak = 400;
constexpr int kHighestPeak = 10'000;
constexpr int kPeakStep = 100;

bool IsWide(int primaries) {
  return primaries == AVCOL_PRI_BT2020 || primaries == AVCOL_PRI_SMPTE431 ||
         primaries == AVCOL_PRI_SMPTE432;
}

bool IsRgb(const AVFrame& frame) {
  const AVPixFmtDescriptor* const format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  return format != nullptr && (format->flags & AV_PIX_FMT_FLAG_RGB) != 0;
}

int PeakOf(const AVFrame& frame) {
  double peak = 0;
  if (const AVFrameSideData* const data =
          av_frame_get_side_data(&frame, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL)) {
    peak = reinterpret_cast<const AVContentLightMetadata*>(data->data)->MaxCLL;
  }
  const AVFrameSideData* const display =
      av_frame_get_side_data(&frame, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA);
  if (peak <= 0 && display != nullptr) {
    const auto& mastering = *reinterpret_cast<const AVMasteringDisplayMetadata*>(display->data);
    if (mastering.has_luminance != 0 && mastering.max_luminance.den != 0) {
      peak = av_q2d(mastering.max_luminance);
    }
  }
  if (!(peak > 0)) {
    return kDefaultPeak;
  }
  const double known = std::clamp<double>(peak, kLowestPeak, kHighestPeak);
  return static_cast<int>(std::ceil(known / kPeakStep)) * kPeakStep;
}

}  // namespace

std::optional<WideColour> WideColourOf(const AVFrame& frame) {
  const bool isPq = frame.color_trc == AVCOL_TRC_SMPTE2084;
  const bool isHdr = isPq || frame.color_trc == AVCOL_TRC_ARIB_STD_B67;
  const bool hasWideMatrix =
      frame.colorspace == AVCOL_SPC_BT2020_NCL || frame.colorspace == AVCOL_SPC_BT2020_CL;
  const bool isSaid = frame.color_primaries != AVCOL_PRI_UNSPECIFIED &&
                      frame.color_primaries != AVCOL_PRI_RESERVED0;
  WideColour colour;
  colour.primaries = isSaid                   ? frame.color_primaries
                     : isHdr || hasWideMatrix ? AVCOL_PRI_BT2020
                                              : AVCOL_PRI_BT709;
  if (!isHdr && !IsWide(colour.primaries)) {
    return {};
  }
  colour.transfer = isHdr ? frame.color_trc : AVCOL_TRC_BT709;
  if (IsRgb(frame)) {
    colour.matrix = AVCOL_SPC_RGB;
  } else if (frame.colorspace != AVCOL_SPC_UNSPECIFIED && frame.colorspace != AVCOL_SPC_RGB) {
    colour.matrix = frame.colorspace;
  } else {
    colour.matrix = colour.primaries == AVCOL_PRI_BT2020 ? AVCOL_SPC_BT2020_NCL : AVCOL_SPC_BT709;
  }
  colour.fullRange = frame.color_range == AVCOL_RANGE_JPEG ||
                     (frame.color_range == AVCOL_RANGE_UNSPECIFIED && IsRgb(frame));
  colour.peak = isPq ? PeakOf(frame) : isHdr ? kDefaultPeak : 0;
  return colour;
}

std::string NameOf(const WideColour& colour) {
  std::string name;
  if (colour.isHdr()) {
    name = colour.transfer == AVCOL_TRC_SMPTE2084 ? "PQ, " : "HLG, ";
  }
  switch (colour.primaries) {
    case AVCOL_PRI_BT2020:
      return name + "BT.2020";
    case AVCOL_PRI_SMPTE431:
    case AVCOL_PRI_SMPTE432:
      return name + "P3";
    default:
      return name + "BT.709";
  }
}

std::string ConversionOf(const WideColour& colour, int width, int height) {
  // Whole numbers in between have no place for colours outside BT.709.
  constexpr const char* kWall =
      "p=bt709:t=bt709:m=gbr:r=full,format=gbrp12le,zscale=m=170m:r=limited,format=yuv420p";
  char scale[160];
  // What is quicker treats the three colours of HLG one by one: its saturated colours would be off.
  std::snprintf(scale, sizeof(scale),
                "zscale=w=%d:h=%d:filter=bicubic:pin=%d:tin=%d:min=%d:rin=%s:agamma=%d:", width,
                height, colour.primaries, colour.transfer, colour.matrix,
                colour.fullRange ? "full" : "limited",
                colour.transfer == AVCOL_TRC_ARIB_STD_B67 ? 0 : 1);
  if (!colour.isHdr()) {
    return std::string(scale) + kWall;
  }
  char map[160];
  std::snprintf(map, sizeof(map),
                "p=bt709:t=linear:npl=%d,format=gbrpf32le,"
                "tonemap=mobius:param=0.5:desat=0:peak=%.4f,zscale=",
                kGraphicsWhite, static_cast<double>(colour.peak) / kGraphicsWhite);
  return std::string(scale) + map + kWall;
}

}  // namespace host
