#include "host/slate/text_mask.h"

#include "platform/text/text_painter.h"
#include "util/text_codecs.h"

namespace host {
namespace {

constexpr const char* kPrivateFontFile = "Lucon.ttf";  // beside the program
constexpr std::u16string_view kFamily = u"DejaVu Sans";

std::u16string Widen(const std::string& utf8) {
  const qorp::EncodedText encoded =
      qorp::Transcode(utf8.data(), utf8.size(), qorp::kUtf8, qorp::kUtf16LE, true);
  std::u16string text;
  text.reserve(encoded.bytes.size() / 2);
  for (std::size_t i = 0; i + 1 < encoded.bytes.size(); i += 2) {
    text.push_back(static_cast<char16_t>(encoded.bytes[i] | encoded.bytes[i + 1] << 8));
  }
  return text;
}

}  // namespace

TextSetter::TextSetter() = default;
TextSetter::~TextSetter() = default;

TextMask TextSetter::Set(const std::string& text, int points, int width, int height) {
  if (painter_ == nullptr) {
    painter_ = std::make_unique<os::TextPainter>(kPrivateFontFile);
  }
  painter_->SetFont(kFamily, points);
  const std::u16string wide = Widen(text);
  os::TextPainting painting;
  painting.text = wide;
  painting.width = width;
  painting.height = height;
  painting.alignment = os::TextAlignment::kCentre;
  const os::ArgbBitmap bitmap = painter_->Paint(painting);
  TextMask mask;
  if (bitmap.ink.Empty()) {
    return mask;
  }
  constexpr std::ptrdiff_t kPixel = 4;
  constexpr std::ptrdiff_t kAlpha = 3;
  mask.width = bitmap.ink.right - bitmap.ink.left;
  mask.height = bitmap.ink.bottom - bitmap.ink.top;
  mask.coverage.reserve(static_cast<std::size_t>(mask.width) *
                        static_cast<std::size_t>(mask.height));
  for (int y = bitmap.ink.top; y < bitmap.ink.bottom; ++y) {
    for (int x = bitmap.ink.left; x < bitmap.ink.right; ++x) {
      mask.coverage.push_back(bitmap.pixels[y * bitmap.stride + x * kPixel + kAlpha]);
    }
  }
  return mask;
}

}  // namespace host
