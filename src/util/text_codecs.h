// Text between byte sequences and Unicode code points: UTF-8 and UTF-16 little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "util/exceptions.h"

namespace qorp {

// No byte order mark is written or recognised: one in the input is an ordinary code point, U+FEFF.
enum TextEncoding : std::int32_t {
  kUtf8 = 1,
  kUtf16LE = 2,
};

using TextBytes = std::vector<std::uint8_t>;
using CodePoints = std::vector<std::uint32_t>;

// Every fault of a text. Thrown in strict mode at the first one; lenient mode drops or replaces
// what it cannot use.
class Text;
using TextError = ExceptionTemplate<Text, TavrelException>;

// Bytes of one encoding to code points. Stateless: one object serves any number of threads.
//
// A parser judges the form of its encoding only; whether a value is a Unicode code point at all
// (not a surrogate, not above U+10FFFF) is judged by Transcode.
class TextParser {
 public:
  virtual ~TextParser() = default;
  // Throws TextError at the first fault unless lenient.
  virtual CodePoints Parse(const TextBytes& bytes, bool lenient) const = 0;
};

class TextParserUTF8 final : public TextParser {
 public:
  CodePoints Parse(const TextBytes& bytes, bool lenient) const override;
};

class TextParserUTF16LE final : public TextParser {
 public:
  CodePoints Parse(const TextBytes& bytes, bool lenient) const override;
};

// Code points to bytes of one encoding. Stateless, and without judgement: a value that is no code
// point gets the bytes that the encoding's arithmetic gives.
class TextEmitter {
 public:
  virtual ~TextEmitter() = default;
  virtual TextBytes Emit(const CodePoints& codePoints) const = 0;
};

class TextEmitterUTF8 final : public TextEmitter {
 public:
  TextBytes Emit(const CodePoints& codePoints) const override;
};

class TextEmitterUTF16LE final : public TextEmitter {
 public:
  TextBytes Emit(const CodePoints& codePoints) const override;
};

// The codec of a TextEncoding, or null for any other value.
std::unique_ptr<TextParser> CreateTextParser(std::int32_t encoding);
std::unique_ptr<TextEmitter> CreateTextEmitter(std::int32_t encoding);

struct EncodedText {
  std::int32_t encoding;
  TextBytes bytes;
};

// Converts length bytes of data. Between parsing and emitting every code point is judged: 0, a
// surrogate and a value above U+10FFFF are faults, for which lenient mode writes U+FFFD. Throws
// TextError for the first fault in strict mode, and in either mode for an unknown encoding.
EncodedText Transcode(const void* data, std::size_t length, std::int32_t from, std::int32_t to,
                      bool lenient);

}  // namespace qorp
