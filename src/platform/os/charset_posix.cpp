#include <array>
#include <cerrno>
#include <cstddef>

#include <iconv.h>

#include "platform/os/charset.h"

namespace os {

std::optional<std::string> ToUtf8(std::string_view bytes, const std::string& charset) {
  const iconv_t converter = ::iconv_open("UTF-8", charset.c_str());
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the system's own value for none.
  if (converter == reinterpret_cast<iconv_t>(-1)) {
    return std::nullopt;
  }
  std::string text;
  std::array<char, 256> piece{};
  char* from = const_cast<char*>(bytes.data());  // iconv does not write to it
  std::size_t left = bytes.size();
  bool isText = true;
  while (left > 0 && isText) {
    char* to = piece.data();
    std::size_t room = piece.size();
    const std::size_t result = ::iconv(converter, &from, &left, &to, &room);
    isText = result != static_cast<std::size_t>(-1) || errno == E2BIG;
    text.append(piece.data(), piece.size() - room);
  }
  ::iconv_close(converter);
  return isText ? std::optional(text) : std::nullopt;
}

}  // namespace os
