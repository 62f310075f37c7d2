// Any bytes as tally messages of every version, as a datagram, and as a stream in pieces: never
// more messages than the bytes can hold, what is read is in range and UTF-8, and nothing piles up.

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "host/control/tally/tally_message.h"
#include "util/text_codecs.h"

namespace {

using host::control::TallyMessage;
using host::control::TallyParser;

void Check(const std::vector<TallyMessage>& messages, std::size_t bytes) {
  // The shortest message is one of 5.0 with nothing but index and control.
  FUZZ_CHECK(messages.size() <= bytes / 2 + 1);
  for (const TallyMessage& message : messages) {
    FUZZ_CHECK(message.display >= 0 && message.display <= 0xFFFF);
    FUZZ_CHECK(message.text.size() <= 256);
    const qorp::TextBytes text(message.text.begin(), message.text.end());
    for (const std::uint32_t point : qorp::TextParserUTF8().Parse(text, false)) {
      FUZZ_CHECK(point >= 0x20 && point <= 0x10FFFF);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t piece = data[0] % 64 + 1;
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);
  for (const auto protocol : {TallyParser::Protocol::kAuto, TallyParser::Protocol::kV31,
                              TallyParser::Protocol::kV40, TallyParser::Protocol::kV50}) {
    TallyParser datagram(protocol);
    Check(datagram.ReadDatagram(bytes), bytes.size());
    FUZZ_CHECK(datagram.skipped() <= 2 * bytes.size());
    TallyParser stream(protocol);
    std::vector<TallyMessage> all;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      const auto more = stream.ReadStream(bytes.subspan(at, std::min(piece, bytes.size() - at)));
      all.insert(all.end(), more.begin(), more.end());
    }
    Check(all, bytes.size());
  }
  return 0;
}
