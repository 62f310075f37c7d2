// Levels of log messages: a smaller number is more severe. Outputs show the number, never a name.
#pragma once

#include <cstdint>

namespace qorp::log {

inline constexpr std::int32_t kError = 0;    // an input or an operation failed
inline constexpr std::int32_t kWarning = 1;  // an anomaly that the system recovers from
inline constexpr std::int32_t kInfo = 2;     // information, such as performance records
inline constexpr std::int32_t kDebug = 3;

}  // namespace qorp::log
