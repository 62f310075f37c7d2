// ILogPerf: logging, buffer-full notification and the counters of the performance record in one.
#pragma once

#include <cstdint>

#include "log/i_buffer_full_notifier.h"
#include "log/i_logger.h"

namespace qorp::log {

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
