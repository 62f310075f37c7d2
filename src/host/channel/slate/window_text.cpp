#include "host/channel/slate/window_text.h"

#include <algorithm>
#include <cstring>

#include "platform/text/text_painter.h"
#include "util/text_codecs.h"
#include "util/yv12.h"

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

namespace {

struct Colour {
  std::uint8_t y;
  std::uint8_t v;
  std::uint8_t u;
};

constexpr Colour kSlate{30, 128, 134};
constexpr Colour kLine{81, 220, 100};
constexpr int kTextLuma = 225;
constexpr int kStripLuma = 20;
constexpr int kSmallestFont = 7;  // points
constexpr int kLargestFont = 48;
// The meter takes the left tenth of a window.
constexpr int kMeterShare = 10;

qorp::Yv12Picture PlanesOf(const WindowPixels& picture) {
  return {picture.pixels.data(), picture.width, picture.height};
}

// All four even; inside the frame.
struct Box {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

void Fill(const WindowPixels& picture, const Box& box, Colour colour) {
  const qorp::Yv12Picture planes = PlanesOf(picture);
  for (int row = box.y; row < box.y + box.height; ++row) {
    std::memset(planes.Y() + static_cast<std::ptrdiff_t>(row) * picture.width + box.x, colour.y,
                static_cast<std::size_t>(box.width));
  }
  for (int row = box.y / 2; row < (box.y + box.height) / 2; ++row) {
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(row) * planes.ChromaWidth() + box.x / 2;
    std::memset(planes.V() + at, colour.v, static_cast<std::size_t>(box.width / 2));
    std::memset(planes.U() + at, colour.u, static_cast<std::size_t>(box.width / 2));
  }
}

// A quarter of the frame remains visible.
void Darken(const WindowPixels& picture, const Box& box) {
  const qorp::Yv12Picture planes = PlanesOf(picture);
  for (int row = box.y; row < box.y + box.height; ++row) {
    std::uint8_t* const line =
        planes.Y() + static_cast<std::ptrdiff_t>(row) * picture.width + box.x;
    for (int x = 0; x < box.width; ++x) {
      line[x] = static_cast<std::uint8_t>((line[x] + 3 * kStripLuma) / 4);
    }
  }
  for (int row = box.y / 2; row < (box.y + box.height) / 2; ++row) {
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(row) * planes.ChromaWidth() + box.x / 2;
    for (std::uint8_t* const plane : {planes.V() + at, planes.U() + at}) {
      for (int x = 0; x < box.width / 2; ++x) {
        plane[x] = static_cast<std::uint8_t>((plane[x] + 3 * 128) / 4);
      }
    }
  }
}

void DrawMask(const WindowPixels& picture, const TextCoverage& mask, int x, int y) {
  std::uint8_t* const luma = picture.pixels.data();
  for (int row = std::max(0, -y); row < mask.height && y + row < picture.height; ++row) {
    const std::uint8_t* const coverage =
        mask.coverage.data() + static_cast<std::ptrdiff_t>(row) * mask.width;
    std::uint8_t* const line = luma + static_cast<std::ptrdiff_t>(y + row) * picture.width;
    for (int column = std::max(0, -x); column < mask.width && x + column < picture.width;
         ++column) {
      std::uint8_t& pixel = line[x + column];
      pixel = static_cast<std::uint8_t>(
          (pixel * (255 - coverage[column]) + kTextLuma * coverage[column] + 127) / 255);
    }
  }
}

int Even(int value) {
  return value / 2 * 2;
}

int FontFor(int height, int share) {
  return std::clamp(height / share, kSmallestFont, kLargestFont);
}

}  // namespace

void WindowText::DrawSlate(const WindowPixels& picture, const std::string& text) {
  constexpr int kFontShare = 18;
  constexpr int kLineDistance = 8;
  const int left = Even(picture.width / kMeterShare + 1);
  const int room = picture.width - 2 * left;
  Fill(picture, {0, 0, picture.width, picture.height}, kSlate);
  const TextCoverage mask =
      setter_.Set(text, FontFor(picture.height, kFontShare), std::max(room, 1), picture.height);
  const int top = (picture.height - mask.height) / 2;
  for (const int line : {top - kLineDistance - 2, top + mask.height + kLineDistance}) {
    if (line >= 0 && line + 2 <= picture.height && room >= 2) {
      Fill(picture, {left, Even(line), Even(room), 2}, kLine);
    }
  }
  DrawMask(picture, mask, (picture.width - mask.width) / 2, top);
}

void WindowText::DrawCaption(const WindowPixels& picture, const std::string& text) {
  constexpr int kFontShare = 22;
  constexpr int kPadding = 4;
  const int left = Even(picture.width / kMeterShare + 2);
  const int room = Even(picture.width - left);
  const Layout layout{text, picture.width, picture.height};
  if (layout != captionLayout_) {
    const int points = FontFor(picture.height, kFontShare);
    // Two lines of text at most.
    caption_ = setter_.Set(text, points, std::max(room - 2 * kPadding, 1),
                           std::min(picture.height, points * 4));
    captionLayout_ = layout;
  }
  const int height = std::min(Even(caption_.height + 2 * kPadding + 1), picture.height);
  const int top = picture.height - height;
  Darken(picture, {left, top, room, height});
  DrawMask(picture, caption_, left + (room - caption_.width) / 2,
           top + (height - caption_.height) / 2);
}

}  // namespace host
