// TextRenderer: a text kept as an overlay and blended into every frame.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/text/text_painter.h"
#include "render/label_colour.h"
#include "render/overlay.h"
#include "render/tracked_setting.h"
#include "render/yv12.h"
#include "util/ratio.h"

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

  // Looked up among the installed families; the private font file stands in for one that is not
  // installed. Without either the former font stays.
  void SetFontName(std::u16string_view family) { fontName_.Assign(family); }
  void SetFontSize(std::int32_t points) { fontSize_.Assign(points); }
  // The picture into which Draw blends.
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
