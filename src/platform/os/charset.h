// Text of other character sets.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace os {

// The bytes, in the character set of that name ("ISO-8859-5", "UCS-2BE"), as UTF-8. None when the
// system does not know it, or the bytes are no text of it. Any thread.
std::optional<std::string> ToUtf8(std::string_view bytes, const std::string& charset);

}  // namespace os
