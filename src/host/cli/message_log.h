// The messages of a running wall: on the error stream, in its log file, to a syslog server.
#pragma once

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "host/cli/program.h"
#include "host/config/wall.h"
#include "host/ffmpeg/mask.h"
#include "log/i_log_perf.h"
#include "log/log_file.h"
#include "log/log_line.h"
#include "log/log_perf.h"
#include "log/sinks.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host::cli {

// A sink that resolves the server's name on a thread of its own, repeatedly until that succeeds,
// with a growing delay of up to a minute. Until then the latest thousand messages wait. Addresses
// are used at once.
//
// Owned by the host; the logger's worker writes.
class ResolvingSyslog final : public qorp::log::ILogSink {
 public:
  using Report = std::function<void(const std::string& what)>;

  // Messages beyond maxLevel are left out. report is called once, on the resolving thread, when the
  // first try fails.
  ResolvingSyslog(config::Endpoint server, std::int32_t maxLevel, Report report);
  // A thread that waits for a name server is detached.
  ~ResolvingSyslog() override;
  ResolvingSyslog(const ResolvingSyslog&) = delete;
  ResolvingSyslog& operator=(const ResolvingSyslog&) = delete;

  void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override;

 private:
  struct Message {
    std::int32_t level = 0;
    qorp::log::LogTime time;
    std::string text;
  };
  // Shared with the thread.
  struct State {
    config::Endpoint server;
    Report report;
    os::Mutex lock;
    os::ConditionVariable changed;
    bool stopped GUARDED_BY(lock) = false;
    std::deque<Message> waiting GUARDED_BY(lock);  // until there is a sink
    std::optional<qorp::log::syslog_sink> sink GUARDED_BY(lock);

    bool Resolve(std::string* failure);
    void ResolveUntilStopped();
  };

  const std::int32_t maxLevel_;
  const std::size_t room_;  // bytes of a message
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::unique_ptr<os::Thread> thread_;
};

// Shown on a terminal only; the line is rewritten in place and wiped before anything else
// is printed. One thread.
class ProgressLine {
 public:
  ProgressLine(std::ostream& stream, bool shown) : stream_(stream), shown_(shown) {}
  ~ProgressLine() { Wipe(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // columns: of the terminal; a longer line could not be rewritten in place.
  void Show(const std::string& line, int columns) {
    const std::string text(
        ffmpeg::CutToColumns(line, static_cast<std::size_t>(std::max(columns, 0))));
    if (shown_ && text != text_) {
      stream_.clear();  // one that failed is tried again
      stream_ << "\r\x1b[K" << text << std::flush;
      text_ = text;
    }
  }
  void Wipe() {
    if (!text_.empty()) {
      stream_ << "\r\x1b[K" << std::flush;
      text_.clear();
    }
  }

 private:
  std::ostream& stream_;
  const bool shown_;
  std::string text_;
};

// The logger of a command with its sinks. Any thread logs. The lines appear on the logger's own
// thread; only the thread that shows the progress waits for the error stream.
class MessageLog {
 public:
  // Throws std::runtime_error when a file cannot be written, is written by another program, or is
  // something else than a log file.
  MessageLog(Streams& streams, const config::LogOptions& options);
  // Stops.
  ~MessageLog();
  MessageLog(const MessageLog&) = delete;
  MessageLog& operator=(const MessageLog&) = delete;

  // For the composer and the host's own components.
  qorp::log::LogPerf& logger() { return logger_; }
  // From now on performance records are written, after a line with their columns, among them one
  // for each pin that has been registered by now.
  void StartRecords();
  // Writes the last performance record; returns when all earlier messages have reached their sinks.
  // False when that takes too long, as with a file on a dead mount: the logger's thread then still
  // uses this object, which must not be destroyed.
  bool Flush();

  // The progress of the command; on a terminal only.
  void ShowProgress(const std::string& text) { screen_.ShowProgress(text); }
  void WipeProgress() { screen_.WipeProgress(); }
  // A line of the command's own.
  void Say(std::int32_t level, const std::string& line);

 private:
  // The error stream: messages, and the progress line, which is wiped for them.
  class Screen final : public qorp::log::ILogSink {
   public:
    Screen(Streams& streams, std::int32_t maxLevel);

    void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override;
    void ShowProgress(const std::string& text);
    void WipeProgress();

   private:
    const std::int32_t maxLevel_;
    os::Mutex lock_;
    qorp::log::console_sink console_ GUARDED_BY(lock_);
    ProgressLine progress_ GUARDED_BY(lock_);
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
};

// Passes everything on to another logger. A channel's first two frames always make the composer fix
// the channel's time and warn of it: these lines become information, later ones stay warnings.
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
  os::Mutex lock_;
  std::map<int, int> fixed_ GUARDED_BY(lock_);  // how often each channel was
};

}  // namespace host::cli
