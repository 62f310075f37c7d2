#include "render/text_renderer.h"

namespace {

// Stands in for a font that is not installed.
constexpr const char* kPrivateFontFile = "Lucon.ttf";

std::int64_t Even(std::int64_t length) {
  return length + length % 2;
}

}  // namespace

TextRenderer::TextRenderer() : painter_(kPrivateFontFile) {}

void TextRenderer::Draw(const LabelRect& rect, std::u16string_view text) {
  const std::int64_t width = Even(std::int64_t{rect.right} - rect.left);
  const std::int64_t height = Even(std::int64_t{rect.bottom} - rect.top);
  if (!target_ || width < 1 || width > os::TextPainter::kMaxSide || height < 1 ||
      height > os::TextPainter::kMaxSide) {
    return;
  }
  bitmapSize_.Assign(
      BitmapSize{static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)});
  text_.Assign(text);
  FollowFont();
  if (!OverlayIsCurrent()) {
    Render();
  }
  BlendOverlay(overlay_, rect.left, rect.top, *target_);
  Commit();
}

void TextRenderer::FollowFont() {
  const bool newFont = !fontName_.Unchanged() || !fontSize_.Unchanged();
  if (newFont) {
    painter_.SetFont(fontName_.Value(), fontSize_.Value());
    format_ = {noWrap_, os::TextAlignment::kNear};
  }
  if (newFont || !alignment_.Unchanged()) {
    switch (alignment_.Value()) {
      case 0:
        format_.alignment = os::TextAlignment::kNear;
        break;
      case 1:
        format_.alignment = os::TextAlignment::kFar;
        break;
      case 2:
        format_.alignment = os::TextAlignment::kCentre;
        break;
      default:
        break;
    }
  }
}

bool TextRenderer::OverlayIsCurrent() const {
  return text_.Unchanged() && fontName_.Unchanged() && fontSize_.Unchanged() &&
         bitmapSize_.Unchanged() && textColour_.Unchanged() && backgroundColour_.Unchanged() &&
         alignment_.Unchanged() && pixelAspect_.Unchanged();
}

void TextRenderer::Render() {
  os::TextPainting painting;
  painting.text = text_.Value();
  painting.width = bitmapSize_.Value().width;
  painting.height = bitmapSize_.Value().height;
  painting.textColour = textColour_.Value().Argb();
  painting.clearColour = backgroundColour_.Value().Argb();
  painting.alignment = format_.alignment;
  painting.wrap = !format_.noWrap;
  const Ratio& aspect = pixelAspect_.Value();
  if (aspect.num > aspect.den) {
    painting.scaleX = static_cast<double>(aspect.den) / static_cast<double>(aspect.num);
  } else {
    painting.scaleY = static_cast<double>(aspect.num) / static_cast<double>(aspect.den);
  }
  const os::ArgbBitmap bitmap = painter_.Paint(painting);
  overlay_.Resize(bitmap.width, bitmap.height);
  if (backgroundColour_.Value().a == 0) {
    const PlaneBounds ink{bitmap.ink.left, bitmap.ink.top, bitmap.ink.right, bitmap.ink.bottom};
    ConvertArgbToOverlay(bitmap.pixels, bitmap.stride, ink, overlay_);
  } else {
    ConvertArgbToOverlay(bitmap.pixels, bitmap.stride, overlay_);
  }
  ++renderCount_;
}

void TextRenderer::Commit() {
  fontName_.Commit();
  fontSize_.Commit();
  textColour_.Commit();
  backgroundColour_.Commit();
  alignment_.Commit();
  pixelAspect_.Commit();
  text_.Commit();
  bitmapSize_.Commit();
}
