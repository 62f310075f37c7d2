#include "util/text_codecs.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/os/charset.h"

namespace qorp {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

bool IsContinuation(std::uint8_t byte) {
  return (byte & 0xC0) == 0x80;
}

// Never part of UTF-8: the starts of overlong two-byte forms and of values beyond four bytes.
bool IsNeverValid(std::uint8_t byte) {
  return byte == 0xC0 || byte == 0xC1 || byte >= 0xF5;
}

bool IsInvalidCodePoint(std::uint32_t value) {
  return value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF);
}

std::uint8_t LowByte(std::uint32_t value) {
  return static_cast<std::uint8_t>(value & 0xFF);
}

template <typename Codec, typename Derived>
std::unique_ptr<Codec, CodecDeleter<Codec>> MakeCodec() {
  return {new Derived, {[](Codec* codec) { delete static_cast<Derived*>(codec); }}};
}

}  // namespace

CodePoints TextParserUTF8::Parse(const TextBytes& bytes, bool lenient) const {
  CodePoints codePoints;
  codePoints.reserve(bytes.size());
  std::uint32_t value = 0;
  unsigned expected = 0;  // continuation bytes; 0 outside a sequence
  // In lenient mode the faulty byte is dropped together with a sequence in progress; it is never
  // read again as a start.
  const auto fault = [&](const char* what) {
    if (!lenient) {
      throw TextError(what);
    }
    expected = 0;
  };
  for (const std::uint8_t byte : bytes) {
    if (IsNeverValid(byte)) {
      fault("invalid utf-8 sequence, invalid character");
    } else if (expected != 0) {
      if (!IsContinuation(byte)) {
        fault("invalid utf-8 sequence, expected a continuation byte");
        continue;
      }
      value = value * 64 + (byte & 0x3FU);
      if (--expected == 0) {
        codePoints.push_back(value);
      }
    } else if (byte < 0x80) {
      codePoints.push_back(byte);
    } else if (IsContinuation(byte)) {
      fault("invalid utf-8 sequence, unexpected continuation byte");
    } else if (byte < 0xE0) {
      value = byte & 0x1FU;
      expected = 1;
    } else if (byte < 0xF0) {
      value = byte & 0x0FU;
      expected = 2;
    } else {
      value = byte & 0x07U;
      expected = 3;
    }
  }
  if (expected != 0) {
    fault("unfinished utf-8 sequence");
  }
  return codePoints;
}

CodePoints TextParserUTF16LE::Parse(const TextBytes& bytes, bool lenient) const {
  if (bytes.size() % 2 != 0 && !lenient) {
    throw TextError("odd number of bytes in utf-16 text, the last one is half a unit");
  }
  CodePoints codePoints;
  codePoints.reserve(bytes.size() / 2);
  std::uint32_t high = 0;  // value that a high surrogate gives, at least 0x10000; 0 when none waits
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const std::uint32_t lowByte = bytes[i];
    const std::uint32_t highByte = bytes[i + 1];
    if (high != 0) {
      if ((highByte & 0xFC) != 0xDC && !lenient) {
        throw TextError("Excpected Second Word sequence");
      }
      codePoints.push_back(high + lowByte + (highByte & 3) * 256);
      high = 0;
    } else if ((highByte & 0xFC) == 0xD8) {
      high = (highByte & 3) * 0x40000 + lowByte * 1024 + 0x10000;
    } else {
      codePoints.push_back(lowByte + highByte * 256);
    }
  }
  if (high != 0 && !lenient) {
    throw TextError("Excpected Second Word sequence at end of input vector");
  }
  return codePoints;
}

TextBytes TextEmitterUTF8::Emit(const CodePoints& codePoints) const {
  TextBytes bytes;
  bytes.reserve(codePoints.size());
  for (const std::uint32_t c : codePoints) {
    os::AppendUtf8(c, bytes);
  }
  return bytes;
}

TextBytes TextEmitterUTF16LE::Emit(const CodePoints& codePoints) const {
  TextBytes bytes;
  bytes.reserve(codePoints.size() * 2);
  for (const std::uint32_t c : codePoints) {
    if (c < 0xD800 || (c >= 0xE000 && c <= 0xFFFF)) {
      bytes.insert(bytes.end(), {LowByte(c), LowByte(c >> 8)});
    } else {
      const std::uint32_t d = c - 0x10000;  // wraps for a surrogate
      bytes.insert(bytes.end(), {LowByte(d >> 10), LowByte(0xD8 + ((d >> 10) & 0x3FF) / 256),
                                 LowByte(c), LowByte(0xDC + (d & 0x3FF) / 256)});
    }
  }
  return bytes;
}

TextParserHandle CreateTextParser(std::int32_t encoding) {
  switch (encoding) {
    case kUtf8:
      return MakeCodec<TextParser, TextParserUTF8>();
    case kUtf16LE:
      return MakeCodec<TextParser, TextParserUTF16LE>();
    default:
      return nullptr;
  }
}

TextEmitterHandle CreateTextEmitter(std::int32_t encoding) {
  switch (encoding) {
    case kUtf8:
      return MakeCodec<TextEmitter, TextEmitterUTF8>();
    case kUtf16LE:
      return MakeCodec<TextEmitter, TextEmitterUTF16LE>();
    default:
      return nullptr;
  }
}

EncodedText Transcode(const void* data, std::size_t length, std::int32_t from, std::int32_t to,
                      bool lenient) {
  const TextParserHandle parser = CreateTextParser(from);
  const TextEmitterHandle emitter = CreateTextEmitter(to);
  if (parser == nullptr || emitter == nullptr) {
    throw TextError("unknown text encoding " + std::to_string(parser == nullptr ? from : to) +
                    ", known are 1 (UTF-8) and 2 (UTF-16 little-endian)");
  }
  const auto* const first = static_cast<const std::uint8_t*>(data);
  CodePoints codePoints = parser->Parse(TextBytes(first, first + length), lenient);
  for (std::uint32_t& codePoint : codePoints) {
    if (IsInvalidCodePoint(codePoint)) {
      if (!lenient) {
        throw TextError("invalid Unicode codepoint");
      }
      codePoint = kReplacement;
    }
  }
  return {to, emitter->Emit(codePoints)};
}

std::u16string WidenLeniently(std::string_view utf8) {
  const EncodedText encoded = Transcode(utf8.data(), utf8.size(), kUtf8, kUtf16LE, true);
  std::u16string wide(encoded.bytes.size() / 2, u'\0');
  for (std::size_t i = 0; i < wide.size(); ++i) {
    wide[i] = static_cast<char16_t>(encoded.bytes[2 * i] | encoded.bytes[2 * i + 1] << 8);
  }
  return wide;
}

std::string StringFormat(const char* format, ...) {
  if (format == nullptr) {
    return {};
  }
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  std::array<char, 256> few;
  const int length = std::vsnprintf(few.data(), few.size(), format, arguments);
  std::string text;
  if (length >= 0 && static_cast<std::size_t>(length) < few.size()) {
    text.assign(few.data(), static_cast<std::size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  va_end(arguments);
  return text;
}

}  // namespace qorp
