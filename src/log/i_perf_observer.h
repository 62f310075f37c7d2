// IPerfObserver: hears the chief numbers of every performance report.
#pragma once

#include <cstdint>

namespace qorp::log {

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
