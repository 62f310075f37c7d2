// Any text as a label's colour: only the four forms are colours, and each gives what its digits
// say.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string_view>

#include "fuzz/check.h"
#include "render/text_renderer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::optional<LabelColour> colour = ReadLabelColour(text);
  const bool valid =
      (size == 4 || size == 5 || size == 7 || size == 9) && text[0] == '#' &&
      std::all_of(text.begin() + 1, text.end(), [](unsigned char c) { return std::isxdigit(c); });
  FUZZ_CHECK(colour.has_value() == valid);
  if (valid) {
    const bool hasAlpha = size == 5 || size == 9;
    FUZZ_CHECK(hasAlpha || colour->a == 255);
    if (size <= 5) {
      FUZZ_CHECK(colour->r % 17 == 0 && colour->g % 17 == 0 && colour->b % 17 == 0);
    }
  }
  return 0;
}
