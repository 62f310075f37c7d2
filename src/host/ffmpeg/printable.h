// What strangers write, made fit for a terminal and a line of a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace host::ffmpeg {

// UTF-8 without control characters (C0, DEL, C1), line and paragraph separators and the characters
// that change the direction of the text around them: each becomes a blank. What is not UTF-8
// becomes U+FFFD.
std::string Printable(std::string_view text);

// The longest beginning of at most so many bytes that ends between two characters.
std::string_view CutToBytes(std::string_view text, std::size_t bytes);

// The same by columns of a terminal, one for each character.
std::string_view CutToColumns(std::string_view text, std::size_t columns);

}  // namespace host::ffmpeg
