// Any bytes as UTF-8 or UTF-16LE: lenient conversion never fails and gives valid text; what strict
// conversion accepts comes back unchanged.

#include "util/text_codecs.h"

#include <cstdint>

#include "fuzz/check.h"

namespace {

constexpr std::int32_t kUtf8 = 1;
constexpr std::int32_t kUtf16 = 2;

void Convert(const std::uint8_t* data, std::size_t size, std::int32_t from, std::int32_t to) {
  const qorp::EncodedText lenient = qorp::Transcode(data, size, from, to, true);
  FUZZ_CHECK(lenient.encoding == to);
  // What a lenient conversion wrote is valid for the strictest reader.
  const qorp::EncodedText again =
      qorp::Transcode(lenient.bytes.data(), lenient.bytes.size(), to, from, false);
  try {
    const qorp::EncodedText strict = qorp::Transcode(data, size, from, to, false);
    FUZZ_CHECK(strict.bytes == lenient.bytes);
    const qorp::EncodedText back =
        qorp::Transcode(strict.bytes.data(), strict.bytes.size(), to, from, false);
    // Forms longer than needed are read as well, so that only valid input of the shortest form
    // comes back as it was; what comes back is stable.
    FUZZ_CHECK(back.bytes == again.bytes);
    FUZZ_CHECK(back.bytes.size() <= size);
  } catch (const TavrelException&) {
    // Refused, which is what strict conversion is for.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Convert(data, size, kUtf8, kUtf16);
  Convert(data, size, kUtf16, kUtf8);
  Convert(data, size, kUtf8, kUtf8);
  return 0;
}
