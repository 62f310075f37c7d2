// What a running wall says to the person who watches it.
#pragma once

#include <map>
#include <mutex>
#include <ostream>
#include <string>

#include "host/channel/channel_ingest.h"
#include "host/cli/program.h"
#include "host/cli/progress_line.h"
#include "log/i_log_perf.h"

namespace host::cli {

// The composer's messages and what becomes of the channels, as lines on the error stream. A
// channel's failure is told when its reason changes, not on every attempt. Any thread; one lock.
class MessageLog final : public qorp::log::ILogPerf, public ChannelObserver {
 public:
  struct Channel {
    std::string name;
    std::string state = "opening";  // opening, live, ended, failed
    std::string reason;             // of the latest failure
  };

  // verbose: everything; otherwise errors and failures only.
  MessageLog(Streams& streams, bool verbose);

  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override;
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override {}
  void IncrementDecodedPictures() override {}
  void AddPoliticChoices(std::int32_t) override {}
  void RegisterPin(const char*) override {}
  void NotifyBufferFull(const char*) override {}

  void ChannelOpened(const std::string& channel, const MediaInfo& info) override;
  void ChannelEnded(const std::string& channel) override;
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> retryIn) override;

  // How far the command has come, where somebody watches.
  void ShowProgress(const std::string& text);
  void WipeProgress();
  // A line of the command's own.
  void Say(const std::string& line);
  // By name.
  std::map<std::string, Channel> channels() const;
  std::size_t CountIn(const std::string& state) const;

 private:
  void Print(const std::string& line);

  std::ostream& err_;      // guarded by lock_
  ProgressLine progress_;  // guarded by lock_
  const bool verbose_;
  mutable std::mutex lock_;
  std::map<std::string, Channel> channels_;  // guarded by lock_
};

}  // namespace host::cli
