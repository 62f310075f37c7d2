// Conversion between byte sequences (UTF-8, UTF-16 little-endian) and Unicode code points, and
// texts by the rules of printf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
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
// A parser checks the form of its encoding only; whether a value is a Unicode code point at all
// (not a surrogate, not above U+10FFFF) is checked by Transcode.
class TextParser {
 public:
  // Throws TextError at the first fault unless lenient.
  virtual CodePoints Parse(const TextBytes& bytes, bool lenient) const = 0;

 protected:
  ~TextParser() = default;  // not virtual: the handle deletes the derived class
};

class TextParserUTF8 final : public TextParser {
 public:
  CodePoints Parse(const TextBytes& bytes, bool lenient) const override;
};

class TextParserUTF16LE final : public TextParser {
 public:
  CodePoints Parse(const TextBytes& bytes, bool lenient) const override;
};

// Code points to bytes of one encoding. Stateless, and without a check: an invalid code point is
// encoded by the same arithmetic.
class TextEmitter {
 public:
  virtual TextBytes Emit(const CodePoints& codePoints) const = 0;

 protected:
  ~TextEmitter() = default;
};

class TextEmitterUTF8 final : public TextEmitter {
 public:
  TextBytes Emit(const CodePoints& codePoints) const override;
};

class TextEmitterUTF16LE final : public TextEmitter {
 public:
  TextBytes Emit(const CodePoints& codePoints) const override;
};

// Owns a codec that was made as some class derived from Codec.
template <typename Codec>
struct CodecDeleter {
  void (*destroy)(Codec* codec) = nullptr;
  void operator()(Codec* codec) const { destroy(codec); }
};
using TextParserHandle = std::unique_ptr<TextParser, CodecDeleter<TextParser>>;
using TextEmitterHandle = std::unique_ptr<TextEmitter, CodecDeleter<TextEmitter>>;

// The codec of a TextEncoding, or null for any other value.
TextParserHandle CreateTextParser(std::int32_t encoding);
TextEmitterHandle CreateTextEmitter(std::int32_t encoding);

struct EncodedText {
  std::int32_t encoding;
  TextBytes bytes;
};

// Converts length bytes of data. Between parsing and emitting every code point is checked: 0, a
// surrogate and a value above U+10FFFF are faults, for which lenient mode writes U+FFFD. Throws
// TextError for the first fault in strict mode, and in either mode for an unknown encoding.
EncodedText Transcode(const void* data, std::size_t length, std::int32_t from, std::int32_t to,
                      bool lenient);

// UTF-8, leniently, to UTF-16 for painting: any byte string can be shown.
std::u16string WidenLeniently(std::string_view utf8);

// The formatted text, however long; empty for a null format.
[[gnu::format(printf, 1, 2)]] std::string StringFormat(const char* format, ...);

}  // namespace qorp
