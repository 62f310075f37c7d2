// Slates and captions, drawn into the frames of a window.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace os {
class TextPainter;
}

namespace host {

// How much of each pixel the text covers, 0 to 255, cropped to the text.
struct TextCoverage {
  int width = 0;  // pixels
  int height = 0;
  std::vector<std::uint8_t> coverage;  // rows of width bytes
};

// Rasterizes texts in one font, centred, wrapped by words, with an ellipsis where the text does not
// fit. The font is loaded with the first text. Owned and called by one channel on its thread.
class TextRasterizer {
 public:
  TextRasterizer();
  ~TextRasterizer();

  // text: UTF-8, invalid bytes replaced; points: size of the font; width, height: limits in pixels.
  TextCoverage Rasterize(const std::string& text, int points, int width, int height);

 private:
  std::unique_ptr<os::TextPainter> painter_;
};

// A packed YV12 frame: Y, V, U, rows without padding; width and height even.
struct WindowPixels {
  std::span<std::uint8_t> pixels;
  int width = 0;
  int height = 0;
};

// Draws the texts of one window. A caption is rasterized again only when it changes. Owned and
// called by one channel on its streaming thread.
class WindowText {
 public:
  // Fills the frame: dark, the text in the middle between two red lines.
  void DrawSlate(const WindowPixels& frame, const std::string& text);
  // Draws a dark strip with the text over the lower edge, beside the meter at the left.
  void DrawCaption(const WindowPixels& frame, const std::string& text);

 private:
  struct Layout {
    std::string text;
    int width = 0;
    int height = 0;
    bool operator==(const Layout&) const = default;
  };

  TextRasterizer rasterizer_;
  Layout captionLayout_;
  TextCoverage caption_;
};

}  // namespace host
