// Colours of a source into those of the wall: matrices, and wide colours by a filter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct AVFrame;

namespace host {

// The weights of red and blue in a source's luma.
struct LumaWeights {
  double red = 0.299;
  double blue = 0.114;

  bool operator==(const LumaWeights&) const = default;
};

inline constexpr LumaWeights kBt601 = {0.299, 0.114};
inline constexpr LumaWeights kBt709 = {0.2126, 0.0722};
inline constexpr LumaWeights kBt2020 = {0.2627, 0.0593};
inline constexpr LumaWeights kSmpte240m = {0.212, 0.087};
inline constexpr LumaWeights kFcc = {0.30, 0.11};

// One plane of 8-bit samples; not owned.
struct ConstPlaneView {
  const std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};
struct PlaneView {
  std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};

// A linear map of (Y, U, V), applied to 4:2:0 frames without RGB in between: the correction of
// luma by chroma is worked out once for each chroma sample and added to its four pixels. Going
// through RGB with the scaler costs several times as much and clips colours that are legal in
// between. Fixed point with 14 fractional bits: within one step of the exact value.
//
// Holds two rows of scratch space: one thread at a time.
class ColourMatrix {
 public:
  ColourMatrix(LumaWeights source, bool fullRange);

  // Nothing to change: the source is BT.601 studio range already.
  bool identity() const { return identity_; }

  // Width and height in pixels, both even. Source and destination planes are the same or do not
  // overlap.
  void Apply(ConstPlaneView y, ConstPlaneView u, ConstPlaneView v, PlaneView outY, PlaneView outU,
             PlaneView outV, int width, int height);

 private:
  // Also fills correction_.
  void ConvertChroma(const std::uint8_t* u, const std::uint8_t* v, std::uint8_t* outU,
                     std::uint8_t* outV, int count);

  bool identity_ = true;
  // In units of 1 / 16384.
  std::int32_t lumaGain_ = 0;
  std::int32_t lumaOffset_ = 0;
  std::int32_t lumaOfU_ = 0;
  std::int32_t lumaOfV_ = 0;
  std::int32_t uOfU_ = 0;
  std::int32_t uOfV_ = 0;
  std::int32_t vOfU_ = 0;
  std::int32_t vOfV_ = 0;
  // Of one row of luma, for each pixel: in the unit above, and rounded to whole steps.
  std::vector<std::int32_t> correction_;
  std::vector<std::int16_t> wholeCorrection_;
};

// What a frame's wide colours are, by FFmpeg's numbers (AVCOL_...), with what is left unsaid
// filled in.
struct WideColour {
  int primaries = 0;
  int transfer = 0;
  int matrix = 0;  // of frames in red, green and blue: that they are
  bool fullRange = false;
  int peak = 0;  // of high dynamic range: brightest cd/m2, in hundreds; otherwise 0

  bool isHdr() const { return peak > 0; }
  bool operator==(const WideColour&) const = default;
};

// Of high dynamic range (PQ, HLG), and of primaries wider than those of BT.709 (BT.2020, P3). None
// for everything else. The peak is what the frame announces for its content or, of that, its
// mastering display; 1000 cd/m2 when it says nothing.
std::optional<WideColour> WideColourOf(const AVFrame& frame);

// For people: "PQ, BT.2020", "BT.2020".
std::string NameOf(const WideColour& colour);

// A chain of filters in FFmpeg's notation that scales such frames into the rectangle and makes
// them 8-bit 4:2:0 of BT.709's primaries and transfer in BT.601 studio range, as all of the wall's.
//
// Brightness of high dynamic range is display light, with the white of graphics (203 cd/m2) as the
// wall's. Half of that and all below stay as they are, what is brighter is compressed smoothly, so
// that the peak becomes white and the white of graphics nine tenths of the signal, whatever the
// peak: for 1000 cd/m2 that is within 5 of 219 steps of the curve of BT.2390. All three colours of
// a pixel are scaled alike, which keeps its hue; colours that BT.709 has not are clipped.
std::string ConversionOf(const WideColour& colour, int width, int height);

}  // namespace host
