// Formatting a message into a buffer on the stack.
#pragma once

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace qorp::log {

// Room for Size characters; longer texts are cut to it.
template <std::size_t Size>
class FormatBuffer {
 public:
  // The length of the text that stands in the buffer then. A format that cannot be carried out is
  // kept as its own text: the message is not lost.
  [[gnu::format(printf, 2, 0)]] std::size_t Format(const char* format, va_list arguments) {
    const int length = std::vsnprintf(text_.data(), text_.size(), format, arguments);
    if (length < 0) {
      return std::string_view(format).copy(text_.data(), Size);
    }
    return std::min(static_cast<std::size_t>(length), Size);
  }

  char* Data() { return text_.data(); }

 private:
  std::array<char, Size + 1> text_;
};

}  // namespace qorp::log
