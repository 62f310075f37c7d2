// What components report through: the levels of messages, ILogger, IBufferFullNotifier, and
// ILogPerf, which adds the counters of the performance record.
#pragma once

#include <cstdint>

namespace qorp::log {

// The smaller, the more severe. Outputs show the number, never a name.
inline constexpr std::int32_t kError = 0;    // an input or an operation failed
inline constexpr std::int32_t kWarning = 1;  // an anomaly that the system recovers from
inline constexpr std::int32_t kInfo = 2;     // information, such as performance records
inline constexpr std::int32_t kDebug = 3;

}  // namespace qorp::log

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

namespace qorp::log::i_buffer_full_notifier::v0 {

// Called from streaming threads. The order of the operations is part of the interface.
class IBufferFullNotifier {
 public:
  virtual void RegisterPin(const char* pinName) = 0;
  // Once for each time that the pin found its downstream buffer full.
  virtual void NotifyBufferFull(const char* pinName) = 0;
  virtual ~IBufferFullNotifier() = default;
};

}  // namespace qorp::log::i_buffer_full_notifier::v0

namespace qorp::log {

using i_buffer_full_notifier::v0::IBufferFullNotifier;
using i_logger::v0::ILogger;

// What a host hands to the composer and to its other components; not owned by them. Any thread. The
// order of the bases and of the operations is part of the interface.
class ILogPerf : public ILogger, public IBufferFullNotifier {
 public:
  virtual void WriteReport() = 0;
  virtual void IncrementResync() = 0;
  virtual void IncrementTsDiscontinuity() = 0;
  virtual void IncrementDecodedPictures() = 0;
  virtual void AddPoliticChoices(std::int32_t count) = 0;
};

}  // namespace qorp::log
