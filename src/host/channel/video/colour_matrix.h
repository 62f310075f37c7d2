// Converts frames of other colour matrices and ranges to BT.601 studio range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

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
struct ConstPlane {
  const std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};
struct Plane {
  std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};

// A linear map of (Y, U, V), applied to 4:2:0 frames without the way over RGB: the correction of
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
  void Apply(ConstPlane y, ConstPlane u, ConstPlane v, Plane outY, Plane outU, Plane outV,
             int width, int height);

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

}  // namespace host
