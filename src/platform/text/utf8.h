// UTF-16 to the UTF-8 that the text libraries take.
#pragma once

#include <string>
#include <string_view>

namespace os {

// Replaces the content of utf8. An unpaired surrogate and a NUL, which would end the text there,
// become U+FFFD.
void ToUtf8(std::u16string_view text, std::string& utf8);

}  // namespace os
