#include "host/channel/video/wide_colour.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

namespace host {
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

std::string ConversionOf(const WideColour& colour, const FitRect& fit) {
  // Whole numbers in between have no place for colours outside BT.709.
  constexpr const char* kWall =
      "p=bt709:t=bt709:m=gbr:r=full,format=gbrp12le,zscale=m=170m:r=limited,format=yuv420p";
  char scale[160];
  // What is quicker treats the three colours of HLG one by one: its saturated colours would be off.
  std::snprintf(scale, sizeof(scale),
                "zscale=w=%d:h=%d:filter=bicubic:pin=%d:tin=%d:min=%d:rin=%s:agamma=%d:", fit.width,
                fit.height, colour.primaries, colour.transfer, colour.matrix,
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
