// What a running wall says: to the person who watches it, to its log file, to a syslog server.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "host/channel/channel_observer.h"
#include "host/cli/program.h"
#include "host/cli/progress_line.h"
#include "host/cli/resolving_syslog.h"
#include "host/config/wall.h"
#include "log/log_perf.h"
#include "log/logfile_sink.h"
#include "log/sinks.h"

namespace host::cli {

// The logger of a command with its sinks, and what becomes of the channels, which goes through it.
// A channel's failure is reported when its reason changes, not on every attempt.
//
// Any thread logs, and tells of channels. The lines appear on the logger's own thread; nobody waits
// for the error stream or a disk, but whoever shows the progress.
class MessageLog final : public ChannelObserver {
 public:
  // Throws std::runtime_error when a file cannot be written, is written by another program, or is
  // something else than a log file.
  MessageLog(Streams& streams, const config::LogOptions& options);
  // Stops.
  ~MessageLog() override;

  // For the composer and the host's own components.
  qorp::log::LogPerf& logger() { return logger_; }
  // From now on performance records are written, after a line with their columns: one for each pin
  // that has been registered by now.
  void StartRecords();
  // Writes the last performance record; returns when everything that was said before has reached
  // its sinks. False when that takes too long, as with a file on a dead mount: the logger's thread
  // still uses this object then, which must not be destroyed any more.
  bool Flush();

  void ChannelOpened(const std::string& channel, const MediaInfo& info) override;
  void ChannelEnded(const std::string& channel) override;
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> retryIn) override;
  void AudioPathChanged(const std::string& channel, const std::string& what) override;
  void AudioChanged(const std::string& channel, const AudioStatus& status) override;

  // How far the command has come, where somebody watches.
  void ShowProgress(const std::string& text) { screen_.ShowProgress(text); }
  void WipeProgress() { screen_.WipeProgress(); }
  // A line of the command's own.
  void Say(std::int32_t level, const std::string& line);

 private:
  // The error stream: messages, and the progress line that makes room for them.
  class Screen final : public qorp::log::ILogSink {
   public:
    Screen(Streams& streams, std::int32_t maxLevel);

    void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override;
    void ShowProgress(const std::string& text);
    void WipeProgress();

   private:
    const std::int32_t maxLevel_;
    std::mutex lock_;
    qorp::log::console_sink console_;  // guarded by lock_
    ProgressLine progress_;            // guarded by lock_
  };
  void RouteFfmpeg();
  void Configure(std::optional<qorp::log::recovering_logfile_sink>& sink,
                 const std::optional<std::filesystem::path>& path, std::int32_t level,
                 const config::LogOptions& options);

  Screen screen_;
  std::optional<qorp::log::recovering_logfile_sink> file_;
  std::optional<qorp::log::recovering_logfile_sink> perfFile_;
  std::optional<ResolvingSyslog> syslog_;
  qorp::log::LogPerf logger_;  // ends before its sinks

  std::mutex lock_;
  // Why a channel fails, by its name, while it does.
  std::map<std::string, std::string> failures_;  // guarded by lock_
};

}  // namespace host::cli
