// ComposerLog: the logger that the composer gets.
#pragma once

#include <map>
#include <mutex>

#include "log/i_log_perf.h"

namespace host::cli {

// Hands everything on to another logger. A channel's first two frames always make the composer fix
// the channel's time and warn of it: these lines are information, and later ones warnings, as the
// composer has them.
//
// Any thread; one lock, which guards the counts and is not held while the other logger is called.
class ComposerLog final : public qorp::log::ILogPerf {
 public:
  // next outlives this.
  explicit ComposerLog(qorp::log::ILogPerf& next) : next_(next) {}

  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override;
  void WriteReport() override { next_.WriteReport(); }
  void IncrementResync() override { next_.IncrementResync(); }
  void IncrementTsDiscontinuity() override { next_.IncrementTsDiscontinuity(); }
  void IncrementDecodedPictures() override { next_.IncrementDecodedPictures(); }
  void AddPoliticChoices(std::int32_t count) override { next_.AddPoliticChoices(count); }
  void RegisterPin(const char* pinName) override { next_.RegisterPin(pinName); }
  void NotifyBufferFull(const char* pinName) override { next_.NotifyBufferFull(pinName); }

 private:
  bool BelongsToStart(const char* text);

  qorp::log::ILogPerf& next_;
  std::mutex lock_;
  std::map<int, int> fixed_;  // guarded by lock_; how often each channel was
};

}  // namespace host::cli
