#include "host/channel/slate/text_coverage.h"

#include "platform/text/text_painter.h"
#include "util/text_codecs.h"

namespace host {
namespace {

constexpr const char* kPrivateFontFile = "Lucon.ttf";  // beside the program
constexpr std::u16string_view kFamily = u"DejaVu Sans";

}  // namespace

TextSetter::TextSetter() = default;
TextSetter::~TextSetter() = default;

TextCoverage TextSetter::Set(const std::string& text, int points, int width, int height) {
  if (painter_ == nullptr) {
    painter_ = std::make_unique<os::TextPainter>(kPrivateFontFile);
  }
  painter_->SetFont(kFamily, points);
  const std::u16string wide = qorp::WidenLeniently(text);
  os::TextPainting painting;
  painting.text = wide;
  painting.width = width;
  painting.height = height;
  painting.alignment = os::TextAlignment::kCentre;
  const os::PaintedText painted = painter_->Paint(painting);
  const os::PixelBounds ink = painted.Ink();
  TextCoverage mask;
  if (ink.Empty()) {
    return mask;
  }
  constexpr std::size_t kPixel = 4;
  constexpr std::size_t kAlpha = 3;
  const std::size_t stride = static_cast<std::size_t>(painted.Width()) * kPixel;
  std::vector<std::uint8_t> pixels(stride * static_cast<std::size_t>(painted.Height()));
  painted.WriteArgb(pixels.data(), static_cast<std::ptrdiff_t>(stride));
  mask.width = ink.right - ink.left;
  mask.height = ink.bottom - ink.top;
  mask.coverage.reserve(static_cast<std::size_t>(mask.width) *
                        static_cast<std::size_t>(mask.height));
  for (int y = ink.top; y < ink.bottom; ++y) {
    for (int x = ink.left; x < ink.right; ++x) {
      mask.coverage.push_back(pixels[static_cast<std::size_t>(y) * stride +
                                     static_cast<std::size_t>(x) * kPixel + kAlpha]);
    }
  }
  return mask;
}

}  // namespace host
