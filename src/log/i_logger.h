// ILogger: all that a component knows of where its messages go.
#pragma once

#include <cstdint>

#include "log/levels.h"

namespace qorp::log::i_logger::v0 {

// Components hold a pointer that they do not own; the logger outlives them. The order of the
// operations is part of the interface.
class ILogger {
 public:
  // Any thread, at any time; format by the rules of printf.
  [[gnu::format(printf, 3, 4)]] virtual void log(std::int32_t level, const char* format, ...) = 0;
  virtual ~ILogger() = default;
};

}  // namespace qorp::log::i_logger::v0

namespace qorp::log {

using i_logger::v0::ILogger;

}  // namespace qorp::log
