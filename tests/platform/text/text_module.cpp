// A library that paints text, for the test that loads and unloads it.
#include "platform/text/text_painter.h"

// Pixels that a text covers; 0 when nothing was painted.
extern "C" __attribute__((visibility("default"))) int CountTextPixels() {
  os::TextPainter painter("Lucon.ttf");
  painter.SetFont(u"No such family", 16);
  os::TextPainting painting;
  painting.text = u"Loaded ש 中 📺";
  painting.width = 300;
  painting.height = 40;
  const os::ArgbBitmap bitmap = painter.Paint(painting);
  int count = 0;
  for (int y = 0; y < bitmap.height; ++y) {
    for (int x = 0; x < bitmap.width; ++x) {
      count += bitmap.pixels[y * bitmap.stride + x * 4 + 3] != 0 ? 1 : 0;
    }
  }
  return count;
}
