// A library that paints text, for the test that loads and unloads it.
#include <cstddef>
#include <vector>

#include "platform/text/text_painter.h"

// Pixels that a text covers; 0 when nothing was painted.
extern "C" __attribute__((visibility("default"))) int CountTextPixels() {
  os::TextPainter painter("Lucon.ttf");
  painter.SetFont(u"No such family", 16);
  os::TextPainting painting;
  painting.text = u"Loaded ש 中 📺";
  painting.width = 300;
  painting.height = 40;
  const os::PaintedText painted = painter.Paint(painting);
  std::vector<unsigned char> pixels(300 * 40 * 4);
  painted.WriteArgb(pixels.data(), 300 * 4);
  int count = 0;
  for (std::size_t i = 3; i < pixels.size(); i += 4) {
    count += pixels[i] != 0 ? 1 : 0;
  }
  return count;
}
