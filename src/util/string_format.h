// Building a text by the rules of printf.
#pragma once

#include <string>

namespace qorp {

// The formatted text, however long; empty for a null format.
[[gnu::format(printf, 1, 2)]] std::string StringFormat(const char* format, ...);

}  // namespace qorp
