#include "render/text_renderer.h"

#include <algorithm>
#include <array>

namespace {

constexpr bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

constexpr unsigned HexValue(char c) {
  return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

}  // namespace

std::optional<LabelColour> ReadLabelColour(std::string_view text) {
  if (text.empty() || text.front() != '#') {
    return std::nullopt;
  }
  const std::string_view digits = text.substr(1);
  const bool single = digits.size() == 3 || digits.size() == 4;
  if ((!single && digits.size() != 6 && digits.size() != 8) ||
      !std::all_of(digits.begin(), digits.end(), IsHexDigit)) {
    return std::nullopt;
  }
  const std::size_t width = single ? 1 : 2;
  const std::size_t channels = digits.size() / width;
  std::array<std::uint8_t, 4> argb{255, 0, 0, 0};
  for (std::size_t i = 0; i < channels; ++i) {
    const unsigned first = HexValue(digits[i * width]);
    argb[4 - channels + i] = static_cast<std::uint8_t>(
        single ? first * 17 : first * 16 + HexValue(digits[i * width + 1]));
  }
  return LabelColour{argb[1], argb[2], argb[3], argb[0]};
}

namespace {

using kernels::CoverageBitmap;
using kernels::PlaneBounds;

PlaneBounds InkOf(const std::uint8_t* alpha, std::int32_t width, std::int32_t height) {
  PlaneBounds ink{width, height, 0, 0};
  for (std::int32_t row = 0; row < height; ++row) {
    const std::uint8_t* begin = alpha + static_cast<std::ptrdiff_t>(row) * width;
    const std::uint8_t* end = begin + width;
    const auto inked = [](std::uint8_t a) { return a != 0; };
    const std::uint8_t* first = std::find_if(begin, end, inked);
    if (first == end) {
      continue;
    }
    const std::uint8_t* last = end;
    while (last[-1] == 0) {
      --last;
    }
    ink.left = std::min(ink.left, static_cast<std::int32_t>(first - begin));
    ink.right = std::max(ink.right, static_cast<std::int32_t>(last - begin));
    ink.top = std::min(ink.top, row);
    ink.bottom = row + 1;
  }
  return ink.bottom == 0 ? PlaneBounds{} : ink;
}

kernels::OverlayPlanes PlanesOf(Yv12Overlay& overlay) {
  return {overlay.width(),       overlay.height(),       overlay.Alpha(),      overlay.Luma(),
          overlay.FirstChroma(), overlay.SecondChroma(), overlay.ChromaAlpha()};
}

// The part of one plane that is blended: `columns` x `rows` samples that start at (overlayX,
// overlayY) of the overlay's plane and at (canvasX, canvasY) of the canvas's.
struct Placement {
  std::int64_t canvasX;
  std::int64_t canvasY;
  std::int64_t overlayX;
  std::int64_t overlayY;
  std::int64_t columns;
  std::int64_t rows;
};

// Reduces the placement to the ink.
Placement Narrow(Placement place, const PlaneBounds& ink) {
  const std::int64_t right = std::min<std::int64_t>(place.overlayX + place.columns, ink.right);
  const std::int64_t bottom = std::min<std::int64_t>(place.overlayY + place.rows, ink.bottom);
  const std::int64_t skipX = std::max<std::int64_t>(ink.left - place.overlayX, 0);
  const std::int64_t skipY = std::max<std::int64_t>(ink.top - place.overlayY, 0);
  place.canvasX += skipX;
  place.canvasY += skipY;
  place.overlayX += skipX;
  place.overlayY += skipY;
  place.columns = std::max<std::int64_t>(right - place.overlayX, 0);
  place.rows = std::max<std::int64_t>(bottom - place.overlayY, 0);
  return place;
}

// The samples of a plane and their opacities; without samples all have the one value.
struct Source {
  const std::uint8_t* samples;
  std::uint8_t value;
  const std::uint8_t* alpha;
  std::int32_t stride;
};

void BlendPlane(const Placement& place, const Source& over, std::uint8_t* canvas,
                std::int32_t canvasStride) {
  const std::int64_t from = place.overlayY * over.stride + place.overlayX;
  std::uint8_t* const to = canvas + place.canvasY * canvasStride + place.canvasX;
  // The canvas under a label is not in the caches yet.
  for (std::int64_t row = 0; row < place.rows; ++row) {
    PrefetchRow(to + row * canvasStride, place.columns);
  }
  const auto columns = static_cast<std::int32_t>(place.columns);
  const auto rows = static_cast<std::int32_t>(place.rows);
  const kernels::DrawingKernels& kernel = kernels::CurrentKernels();
  if (over.samples == nullptr) {
    kernel.blendValue(to, canvasStride, columns, rows, over.value, over.alpha + from, over.stride);
  } else {
    kernel.blend(to, canvasStride, columns, rows, over.samples + from, over.alpha + from,
                 over.stride);
  }
}

// The mean chroma of pixels of one colour is that of the colour, with any weights.
Yv12Overlay::Colour ColourOf(const CoverageBitmap& bitmap) {
  const Ycbcr88 colour = RgbToYcbcr601(bitmap.colour[0], bitmap.colour[1], bitmap.colour[2]);
  const auto byte = [](std::int32_t value, std::int32_t most) {
    return static_cast<std::uint8_t>(std::clamp((value + 128) >> 8, 16, most));
  };
  return {byte(colour.y, 235), byte(colour.p, 240), byte(colour.q, 240)};
}

}  // namespace

void Yv12Overlay::Resize(std::int32_t w, std::int32_t h) {
  if (w == width_ && h == height_) {
    return;
  }
  width_ = w;
  height_ = h;
  bytes_.assign(2 * LumaBytes() + 3 * ChromaBytes(), 0);
  colour_.reset();
  lumaInk_ = {0, 0, w, h};
  chromaInk_ = {0, 0, w / 2, h / 2};
}

void Yv12Overlay::MeasureInk() {
  lumaInk_ = InkOf(Alpha(), width_, height_);
  chromaInk_ = InkOf(ChromaAlpha(), width_ / 2, height_ / 2);
  colour_.reset();
}

void Yv12Overlay::SetInk(const PlaneBounds& luma, const PlaneBounds& chroma, const Colour& colour) {
  lumaInk_ = luma;
  chromaInk_ = chroma;
  colour_ = colour;
}

void ConvertArgbToOverlay(const std::uint8_t* pixels, std::ptrdiff_t stride, Yv12Overlay& overlay) {
  if (overlay.height() < 2) {
    return;
  }
  kernels::CurrentKernels().convertPixels({pixels, stride}, PlanesOf(overlay),
                                          {0, 0, overlay.width() / 2, overlay.height() / 2});
  overlay.MeasureInk();
}

void ConvertCoverageToOverlay(const CoverageBitmap& bitmap, Yv12Overlay& overlay) {
  const PlaneBounds& ink = bitmap.ink;
  if (ink.left >= ink.right || ink.top >= ink.bottom || overlay.height() < 2) {
    overlay.SetInk({}, {}, {});
    return;
  }
  // The blocks with ink in the 4x4 pixels around them.
  const PlaneBounds blocks{std::max((ink.left - 1) / 2, 0), std::max((ink.top - 1) / 2, 0),
                           std::min(ink.right / 2 + 1, overlay.width() / 2),
                           std::min(ink.bottom / 2 + 1, overlay.height() / 2)};
  kernels::CurrentKernels().convertCoverage(bitmap, PlanesOf(overlay),
                                            {blocks.left, blocks.top, blocks.right, blocks.bottom});
  overlay.SetInk(ink, blocks, ColourOf(bitmap));
}

void BlendOverlay(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                  const Yv12Picture& canvas) {
  const std::int64_t x0 = std::max(left, 0);
  const std::int64_t y0 = std::max(top, 0);
  const std::int64_t x1 =
      std::min<std::int64_t>(std::int64_t{left} + overlay.width(), canvas.width);
  const std::int64_t y1 =
      std::min<std::int64_t>(std::int64_t{top} + overlay.height(), canvas.height);
  if (x1 <= x0 || y1 <= y0) {
    return;
  }
  const Placement luma{x0, y0, x0 - left, y0 - top, x1 - x0, y1 - y0};
  const Placement chroma =
      Narrow({x0 / 2, y0 / 2, (x0 - left) / 2, (y0 - top) / 2, (x1 - x0) / 2, (y1 - y0) / 2},
             overlay.chromaInk());
  const Yv12Overlay::Colour* const one = overlay.colour();
  const Yv12Overlay::Colour colour = one != nullptr ? *one : Yv12Overlay::Colour();
  const auto source = [&](const std::uint8_t* samples, std::uint8_t value,
                          const std::uint8_t* alpha, std::int32_t stride) {
    return Source{one != nullptr ? nullptr : samples, value, alpha, stride};
  };
  BlendPlane(Narrow(luma, overlay.lumaInk()),
             source(overlay.Luma(), colour.luma, overlay.Alpha(), overlay.width()), canvas.Y(),
             canvas.width);
  const std::int32_t chromaStride = overlay.width() / 2;
  BlendPlane(chroma,
             source(overlay.FirstChroma(), colour.firstChroma, overlay.ChromaAlpha(), chromaStride),
             canvas.V(), canvas.ChromaWidth());
  BlendPlane(
      chroma,
      source(overlay.SecondChroma(), colour.secondChroma, overlay.ChromaAlpha(), chromaStride),
      canvas.U(), canvas.ChromaWidth());
}

namespace {

// Replaces a font that is not installed.
constexpr const char* kPrivateFontFile = "Lucon.ttf";

std::int64_t Even(std::int64_t length) {
  return length + length % 2;
}

// On a transparent clear colour, the coverage changes the opacity only, not the text's colour.
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
