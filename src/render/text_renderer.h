// TextRenderer: a text kept as an overlay and blended into every frame. Yv12Overlay: that overlay,
// an ARGB bitmap converted to planes of colour and opacity. LabelColour: colours of labels and
// their text form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/text/text_painter.h"
#include "render/kernels/drawing_kernels.h"
#include "render/yv12.h"
#include "util/ratio.h"

struct LabelColour {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  std::uint8_t a = 0;  // 255 is opaque

  bool operator==(const LabelColour&) const = default;
  // A * 2^24 + R * 2^16 + G * 2^8 + B.
  constexpr std::uint32_t Argb() const {
    return std::uint32_t{a} << 24 | std::uint32_t{r} << 16 | std::uint32_t{g} << 8 | b;
  }
};

// One of #RGB, #ARGB, #RRGGBB and #AARRGGBB in hexadecimal digits of either case; a single digit d
// stands for dd, a missing A for opaque. None for any other text.
std::optional<LabelColour> ReadLabelColour(std::string_view text);

// A setting that is assigned repeatedly, mostly with the same value, and knows whether it has
// changed. It is unchanged when the last committed drawing was made with an equal value. The very
// first assignment always counts as a change.
//
// No lock. T is compared with ==; assigning an equal value copies nothing.
template <typename T>
class TrackedSetting {
 public:
  TrackedSetting() = default;
  explicit TrackedSetting(T initial) : current_(std::move(initial)) {}

  template <typename U>
  void Assign(const U& value) {
    changed_ = !set_;
    set_ = true;
    if (!(current_ == value)) {
      current_ = value;
    }
  }

  // Something has been drawn with the current value.
  void Commit() {
    changed_ = false;
    if (!previousValid_ || !(previous_ == current_)) {
      previous_ = current_;
      previousValid_ = true;
    }
  }

  bool Unchanged() const { return !changed_ && previousValid_ && previous_ == current_; }
  const T& Value() const { return current_; }

 private:
  bool changed_ = false;
  bool set_ = false;
  T current_{};
  bool previousValid_ = false;  // false before the first drawing
  T previous_{};                // what was drawn with
};

// The converted form of a text bitmap of w x h pixels (both even), in one block of w*h*11/4 bytes:
//
//   plane           bytes         stride   content
//   alpha           w*h           w        opacity of each pixel
//   luma            w*h           w        16 to 235
//   first chroma    (w/2)*(h/2)   w/2      blended into the canvas's V plane
//   second chroma   (w/2)*(h/2)   w/2      blended into the canvas's U plane
//   chroma alpha    (w/2)*(h/2)   w/2      opacity of the chroma samples
//
// A text in one colour uses the two opacity planes only, and one colour for the whole overlay.
// Blending it reads half as much memory, which is most of the cost of a label.
//
// Owned by its text renderer, which keeps it between frames; used by the drawing thread only.
class Yv12Overlay {
 public:
  // One colour in studio range.
  struct Colour {
    std::uint8_t luma = 16;
    std::uint8_t firstChroma = 128;
    std::uint8_t secondChroma = 128;
  };

  // Sets the size to w x h pixels. Allocates only when the size changes; the planes are then zero
  // (transparent).
  void Resize(std::int32_t w, std::int32_t h);

  std::int32_t width() const { return width_; }
  std::int32_t height() const { return height_; }

  std::uint8_t* Alpha() { return bytes_.data(); }
  std::uint8_t* Luma() { return Alpha() + LumaBytes(); }
  std::uint8_t* FirstChroma() { return Luma() + LumaBytes(); }
  std::uint8_t* SecondChroma() { return FirstChroma() + ChromaBytes(); }
  std::uint8_t* ChromaAlpha() { return SecondChroma() + ChromaBytes(); }
  const std::uint8_t* Alpha() const { return bytes_.data(); }
  const std::uint8_t* Luma() const { return Alpha() + LumaBytes(); }
  const std::uint8_t* FirstChroma() const { return Luma() + LumaBytes(); }
  const std::uint8_t* SecondChroma() const { return FirstChroma() + ChromaBytes(); }
  const std::uint8_t* ChromaAlpha() const { return SecondChroma() + ChromaBytes(); }

  // The parts of the planes that are blended: most of a label's bitmap is empty. Outside of them
  // everything is transparent, and the planes may hold remains of earlier texts. After Resize they
  // are the whole planes. MeasureInk narrows them to the pixels that are not transparent; SetInk
  // sets them, and one colour for the overlay.
  const kernels::PlaneBounds& lumaInk() const { return lumaInk_; }
  const kernels::PlaneBounds& chromaInk() const { return chromaInk_; }
  void MeasureInk();
  void SetInk(const kernels::PlaneBounds& luma, const kernels::PlaneBounds& chroma,
              const Colour& colour);
  // Null: the planes have the colours.
  const Colour* colour() const { return colour_ ? &*colour_ : nullptr; }

 private:
  std::size_t LumaBytes() const { return static_cast<std::size_t>(width_) * height_; }
  std::size_t ChromaBytes() const { return static_cast<std::size_t>(width_ / 2) * (height_ / 2); }

  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  kernels::PlaneBounds lumaInk_;
  kernels::PlaneBounds chromaInk_;
  std::optional<Colour> colour_;
  std::vector<std::uint8_t> bytes_;
};

// Converts a 32-bit ARGB bitmap of the overlay's size (straight alpha; bytes blue, green, red,
// alpha; rows `stride` bytes apart, negative for a bottom-up bitmap) and measures its ink. A bitmap
// less than two pixels high is not converted.
void ConvertArgbToOverlay(const std::uint8_t* pixels, std::ptrdiff_t stride, Yv12Overlay& overlay);

// Makes an overlay that blends like the one that ConvertArgbToOverlay makes of the same bitmap, in
// a fraction of the time: the pixels' colour is known and only their opacities are averaged.
void ConvertCoverageToOverlay(const kernels::CoverageBitmap& bitmap, Yv12Overlay& overlay);

// Blends the overlay into the canvas, its top left pixel at (left, top), as far as it lies inside.
// An odd left or top shifts the chroma by half a sample.
void BlendOverlay(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                  const Yv12Picture& canvas);

// Canvas pixels, right and bottom exclusive.
struct LabelRect {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
};

// Painting a text and converting it into an overlay costs much more than blending it, and a label
// stays as it is for thousands of frames. So every input that shows in the overlay is a
// TrackedSetting, and the overlay is made again only when one of them changed; every other Draw
// blends the overlay that is kept. Inputs may therefore be set again on every frame.
//
// Owned by its label; used by one thread at a time, without a lock. A Draw with nothing changed
// allocates nothing.
class TextRenderer {
 public:
  TextRenderer();

  // Looked up among the installed families; the private font file replaces one that is not
  // installed. Without either the former font stays.
  void SetFontName(std::u16string_view family) { fontName_.Assign(family); }
  void SetFontSize(std::int32_t points) { fontSize_.Assign(points); }
  // The frame into which Draw blends.
  void SetTarget(const Yv12Picture& canvas) { target_ = canvas; }
  void SetTextColour(const LabelColour& colour) { textColour_.Assign(colour); }
  const LabelColour& TextColour() const { return textColour_.Value(); }
  void SetBackgroundColour(const LabelColour& colour) { backgroundColour_.Assign(colour); }
  // 0 left, 1 right, 2 centre; any other value keeps what is in use.
  void SetAlignment(std::int32_t alignment) { alignment_.Assign(alignment); }
  // Width to height of the canvas's pixels: text keeps its shape on pixels that are not square.
  void SetPixelAspect(const qorp::WideRatio& aspect) { pixelAspect_.Assign(qorp::Reduced(aspect)); }
  // One line, cut at the edges, instead of wrapped lines that end in an ellipsis. Takes effect with
  // the next change of font.
  void SetNoWrap(bool noWrap) { noWrap_ = noWrap; }

  // Blends the text into the target, clipped to it; before a target is set, does nothing. The
  // rectangle is widened to the right and to the bottom by one pixel where it is odd; one without
  // pixels, or larger than a bitmap can be, shows nothing.
  void Draw(const LabelRect& rect, std::u16string_view text);

  // How often the overlay was made.
  std::uint64_t RenderCount() const { return renderCount_; }
  const os::TextPainter& Painter() const { return painter_; }

 private:
  struct BitmapSize {
    std::int32_t width = 0;
    std::int32_t height = 0;
    bool operator==(const BitmapSize&) const = default;
  };
  // How the string is laid out; made again with every font.
  struct Format {
    bool noWrap = false;
    os::TextAlignment alignment = os::TextAlignment::kNear;
  };

  void FollowFont();
  bool OverlayIsCurrent() const;
  void Render();
  void Commit();

  TrackedSetting<std::u16string> fontName_{u"Arial"};
  TrackedSetting<std::int32_t> fontSize_{18};  // points
  std::optional<Yv12Picture> target_;
  TrackedSetting<LabelColour> textColour_{{255, 255, 255, 255}};
  TrackedSetting<LabelColour> backgroundColour_{{0, 0, 0, 128}};
  TrackedSetting<std::int32_t> alignment_{2};
  TrackedSetting<qorp::WideRatio> pixelAspect_;
  bool noWrap_ = false;
  TrackedSetting<std::u16string> text_;
  TrackedSetting<BitmapSize> bitmapSize_;

  os::TextPainter painter_;
  Format format_;
  std::vector<std::uint8_t> pixels_;  // of texts that are more than coverage
  Yv12Overlay overlay_;
  std::uint64_t renderCount_ = 0;
};
