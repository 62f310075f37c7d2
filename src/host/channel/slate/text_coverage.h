// Text as a mask of coverage.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace os {
class TextPainter;
}

namespace host {

// How much of each pixel the text covers, 0 to 255, cropped to what is not empty.
struct TextCoverage {
  int width = 0;  // pixels
  int height = 0;
  std::vector<std::uint8_t> coverage;  // rows of width bytes
};

// Sets texts in one font, centred, wrapped by words, with an ellipsis at the end of what fits. The
// font is loaded with the first text. Owned and called by one channel on its thread.
class TextSetter {
 public:
  TextSetter();
  ~TextSetter();

  // text: UTF-8, faults replaced; points: size of the font; width, height: room in pixels.
  TextCoverage Set(const std::string& text, int points, int width, int height);

 private:
  std::unique_ptr<os::TextPainter> painter_;
};

}  // namespace host
