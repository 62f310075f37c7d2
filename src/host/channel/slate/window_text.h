// Slates and captions, drawn into the pictures of a window.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/channel/slate/text_coverage.h"

namespace host {

// A packed YV12 picture: Y, V, U, rows without padding; width and height even.
struct WindowPixels {
  std::span<std::uint8_t> pixels;
  int width = 0;
  int height = 0;
};

// Draws the texts of one window. A text is set again only when it changes. Owned and called by one
// channel on its streaming thread.
class WindowText {
 public:
  // Fills the picture: dark, the text in the middle between two red lines.
  void DrawSlate(const WindowPixels& picture, const std::string& text);
  // Draws a dark strip with the text over the lower edge, clear of the meter at the left.
  void DrawCaption(const WindowPixels& picture, const std::string& text);

 private:
  struct Layout {
    std::string text;
    int width = 0;
    int height = 0;
    bool operator==(const Layout&) const = default;
  };

  TextSetter setter_;
  Layout captionLayout_;
  TextCoverage caption_;
};

}  // namespace host
