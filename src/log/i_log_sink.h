// What a logger calls: ILogSink takes its messages, IPerfObserver the main figures of every
// performance report.
#pragma once

#include <cstdint>

#include "log/log_line.h"

namespace qorp::log {

// Not owned by the logger. Called from the logger's worker thread, one message at a time, with no
// lock of the logger held: it may be slow, and it may throw, which loses this message for this sink
// only. The order of the operations is part of the interface.
class ILogSink {
 public:
  virtual ~ILogSink() = default;
  // text is one line, without its end.
  virtual void Write(std::int32_t level, const LogTime& time, const char* text) = 0;
};

// Not owned by the logger; called on its worker thread. The order of the operations is part of the
// interface.
class IPerfObserver {
 public:
  virtual ~IPerfObserver() = default;
  // cpuPercent: the process's share of the whole machine; commitPercent: committed memory of the
  // machine; workingSetBytes: of the process.
  virtual void OnReport(std::uint32_t cpuPercent, std::uint32_t commitPercent,
                        std::uint64_t workingSetBytes, std::int32_t politicChoicesPerSecond) = 0;
};

}  // namespace qorp::log
