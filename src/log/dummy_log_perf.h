// DummyLogPerf: the logger that every composer filter starts with.
#pragma once

#include "log/i_log_perf.h"

namespace qorp::log {

// Sends every message, whatever its level, to the debugger output; the rest does nothing. Without
// state: any thread, no lock.
class DummyLogPerf : public ILogPerf {
 public:
  // A text of more than 260 characters is cut. The line end is a write of its own: the lines of two
  // threads may interleave before it.
  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override;
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override {}
  void IncrementDecodedPictures() override {}
  void AddPoliticChoices(std::int32_t) override {}
  void RegisterPin(const char*) override {}
  void NotifyBufferFull(const char*) override {}
};

}  // namespace qorp::log
