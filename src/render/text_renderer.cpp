#include "render/text_renderer.h"

#include <algorithm>

namespace {

// Stands in for a font that is not installed.
constexpr const char* kPrivateFontFile = "Lucon.ttf";

std::int64_t Even(std::int64_t length) {
  return length + length % 2;
}

// On a transparent clear colour the text's colour is whole at every coverage.
void ConvertCoverage(const os::PaintedText& painted, Yv12Overlay& overlay) {
  const os::CoverageTable& colours = painted.Colours();
  kernels::CoverageBitmap bitmap;
  bitmap.coverage = painted.Coverage();
  bitmap.stride = painted.Stride();
  bitmap.ink = {painted.Ink().left, painted.Ink().top, painted.Ink().right, painted.Ink().bottom};
  std::copy_n(colours.back().begin(), 3, bitmap.colour.begin());
  for (std::size_t i = 0; i < colours.size(); ++i) {
    bitmap.opacities[i] = colours[i][3];
  }
  ConvertCoverageToOverlay(bitmap, overlay);
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
  const qorp::WideRatio& aspect = pixelAspect_.Value();
  if (aspect.num > aspect.den) {
    painting.scaleX = static_cast<double>(aspect.den) / static_cast<double>(aspect.num);
  } else {
    painting.scaleY = static_cast<double>(aspect.num) / static_cast<double>(aspect.den);
  }
  const os::PaintedText painted = painter_.Paint(painting);
  overlay_.Resize(painted.Width(), painted.Height());
  if (painted.IsCoverage() && backgroundColour_.Value().a == 0) {
    ConvertCoverage(painted, overlay_);
  } else {
    const std::ptrdiff_t stride = std::ptrdiff_t{painted.Width()} * 4;
    pixels_.resize(static_cast<std::size_t>(stride) * static_cast<std::size_t>(painted.Height()));
    painted.WriteArgb(pixels_.data(), stride);
    ConvertArgbToOverlay(pixels_.data(), stride, overlay_);
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
