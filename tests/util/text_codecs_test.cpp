#include "util/text_codecs.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "util/exceptions.h"

namespace {

using qorp::CodePoints;
using qorp::TextBytes;
using qorp::TextError;

constexpr bool kStrict = false;
constexpr bool kLenient = true;

std::string ErrorOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const TextError& error) {
    return error.what();
  }
  return "no error";
}

struct ParserCase {
  TextBytes bytes;
  const char* error;  // of strict mode; null when the bytes are valid
  CodePoints lenient;
};

void CheckParser(std::int32_t encoding, const std::vector<ParserCase>& cases) {
  const auto parser = qorp::CreateTextParser(encoding);
  ASSERT_NE(parser, nullptr);
  for (const ParserCase& each : cases) {
    SCOPED_TRACE(testing::PrintToString(each.bytes));
    EXPECT_EQ(parser->Parse(each.bytes, kLenient), each.lenient);
    if (each.error == nullptr) {
      EXPECT_EQ(parser->Parse(each.bytes, kStrict), each.lenient);
    } else {
      EXPECT_EQ(ErrorOf([&] { parser->Parse(each.bytes, kStrict); }), each.error);
    }
  }
}

TEST(TextCodecs, Utf8ParserNamesTheFaultOrDropsIt) {
  const char* const invalid = "invalid utf-8 sequence, invalid character";
  const char* const unexpected = "invalid utf-8 sequence, unexpected continuation byte";
  const char* const expected = "invalid utf-8 sequence, expected a continuation byte";
  const char* const unfinished = "unfinished utf-8 sequence";
  CheckParser(qorp::kUtf8, {
                               {{}, nullptr, {}},
                               {{0x41, 0xC3, 0xA9, 0x7F}, nullptr, {0x41, 0xE9, 0x7F}},
                               {{0xEF, 0xBB, 0xBF, 0xE2, 0x82, 0xAC}, nullptr, {0xFEFF, 0x20AC}},
                               {{0xF0, 0x9F, 0x98, 0x80}, nullptr, {0x1F600}},
                               // Forms that only the later check of code points may refuse.
                               {{0xE0, 0x80, 0xAF, 0xED, 0xA0, 0x80}, nullptr, {0x2F, 0xD800}},
                               {{0xF4, 0x90, 0x80, 0x80}, nullptr, {0x110000}},
                               {{0xC3}, unfinished, {}},
                               {{0x41, 0xF0, 0x9F, 0x98}, unfinished, {0x41}},
                               {{0x41, 0x80, 0x42}, unexpected, {0x41, 0x42}},
                               {{0xE2, 0x41, 0x82}, expected, {}},
                               {{0xE2, 0xC3, 0xA9, 0x42}, expected, {0x42}},
                               {{0xC0, 0x80}, invalid, {}},
                               {{0xC1}, invalid, {}},
                               // The test for such bytes comes first, inside a sequence too.
                               {{0xE2, 0x82, 0xF5, 0x42}, invalid, {0x42}},
                               {{0xFF}, invalid, {}},
                           });
}

TEST(TextCodecs, Utf16ParserPairsSurrogatesAndNamesTheFault) {
  const char* const second = "Excpected Second Word sequence";
  const char* const secondAtEnd = "Excpected Second Word sequence at end of input vector";
  const char* const odd = "odd number of bytes in utf-16 text, the last one is half a unit";
  CheckParser(qorp::kUtf16LE, {
                                  {{}, nullptr, {}},
                                  {{0x41, 0x00, 0xFF, 0xFE}, nullptr, {0x41, 0xFEFF}},
                                  {{0x3D, 0xD8, 0x00, 0xDE}, nullptr, {0x1F600}},
                                  {{0xFF, 0xDB, 0xFF, 0xDF}, nullptr, {0x10FFFF}},
                                  {{0x00, 0xDC}, nullptr, {0xDC00}},  // checked later
                                  {{0x3D, 0xD8, 0x41, 0x02}, second, {0x1F641}},
                                  {{0x3D, 0xD8}, secondAtEnd, {}},
                                  {{0x41, 0x00, 0x42}, odd, {0x41}},
                                  {{0x42}, odd, {}},
                              });
}

TEST(TextCodecs, TranscodeChecksEveryCodePointAndNamesAnUnknownEncoding) {
  // NUL, a surrogate, and beyond the last one.
  for (const TextBytes& bytes :
       {TextBytes{0x41, 0x00}, {0x41, 0xED, 0xA0, 0x80}, {0x41, 0xF4, 0x90, 0x80, 0x80}}) {
    const auto transcode = [&](bool lenient) {
      return qorp::Transcode(bytes.data(), bytes.size(), qorp::kUtf8, qorp::kUtf16LE, lenient);
    };
    EXPECT_EQ(ErrorOf([&] { transcode(kStrict); }), "invalid Unicode codepoint");
    const qorp::EncodedText text = transcode(kLenient);
    EXPECT_EQ(text.encoding, qorp::kUtf16LE);
    EXPECT_EQ(text.bytes, (TextBytes{0x41, 0x00, 0xFD, 0xFF}));
  }
  for (const std::int32_t unknown : {0, 3, -1}) {
    EXPECT_EQ(qorp::CreateTextParser(unknown), nullptr);
    EXPECT_EQ(qorp::CreateTextEmitter(unknown), nullptr);
  }
  EXPECT_EQ(ErrorOf([] { qorp::Transcode("A", 1, qorp::kUtf8, 3, kLenient); }),
            "unknown text encoding 3, known are 1 (UTF-8) and 2 (UTF-16 little-endian)");
}

TEST(ComException, ReadsAProductCodeAsAProductMessageAndOthersAsThePlatforms) {
  const auto textOf = [](std::uint32_t code) {
    return std::string(COMException(MakeHresult(code)).what());
  };
  EXPECT_EQ(textOf(0x80250031),
            "Tavrel Error 80250031: Input streams are not in mezzanine format. You shall "
            "configure fallback settings manually.");
  EXPECT_THAT(textOf(0x80004005), testing::StartsWith("COM Error 80004005: "));
  EXPECT_GT(COMException(E_FAIL).BuildMessage().size(), 0U);
  // A gap in the product's table.
  EXPECT_EQ(textOf(0x80250009), "COM Error 80250009: Invalid error code");
}

}  // namespace
