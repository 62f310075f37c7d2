// logfile_sink: log lines in a file of bounded size, the most recent ones in memory, too.
// recovering_logfile_sink: the same, but continues in a new file when it cannot continue in the old
// one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "log/circular_log_file.h"
#include "log/i_log_perf.h"
#include "log/i_log_sink.h"
#include "log/log_line.h"
#include "platform/os/files.h"
#include "platform/os/mutex.h"

namespace qorp::log {

struct LogFileOptions {
  std::int32_t maxLevel = kInfo;       // lines of a greater level are left out
  std::int32_t maxSize = 10 << 20;     // bytes; 0 for no limit
  std::size_t historyCapacity = 1000;  // lines
};

// Owned by the host, which gives it to a logger as a sink for messages or performance records. The
// logger's worker writes; any thread may change the settings and ask for the history.
//
// Without a file, or while it cannot be written, lines still reach the history; every further line
// tries to open the file again. When a file is opened under a new path, history and line numbers
// are rebuilt from it: what the history held is gone. Lines without five fields are left out. A
// line with a number that is none makes Write throw, with every further line, and leaves the file
// as it is: its owner moves the file or gives another path.
class logfile_sink final : public ILogSink {
 public:
  // Throws std::invalid_argument for a size below 0.
  explicit logfile_sink(const LogFileOptions& options = {});

  // Takes effect with the next line. The system's form of a path, or a native one; empty for no
  // file.
  void SetPath(std::string path);
  // The next line opens the file again; line numbers and history continue.
  void Reopen();
  void SetMaxLevel(std::int32_t maxLevel);
  // Throws std::invalid_argument for a size below 0.
  void SetMaxSize(std::int32_t bytes);

  // Throws std::invalid_argument and std::out_of_range as the functions of log_line.h do, for a
  // file that is being opened.
  void Write(std::int32_t level, const LogTime& time, const char* text) override;

  // See LogHistory. Throws std::runtime_error "History is empty" when there are no lines.
  bool GetHistoryRange(std::int64_t first, std::int64_t last, std::int64_t* outFirst,
                       std::int64_t* outLast) const {
    return history_.GetRange(first, last, outFirst, outLast);
  }
  std::vector<LogHistoryEntry> GetHistory(std::int64_t first, std::int64_t last) const {
    return history_.Get(first, last);
  }

 private:
  void Open(const std::string& path) REQUIRES(writeLock_);
  void Rebuild() REQUIRES(writeLock_);

  os::Mutex lock_;
  std::int32_t maxLevel_ GUARDED_BY(lock_);
  std::uint32_t maxSize_ GUARDED_BY(lock_);
  std::string path_ GUARDED_BY(lock_);  // as configured

  os::Mutex writeLock_;  // held for the whole of Write; taken before lock_
  CircularLogFile file_ GUARDED_BY(writeLock_);
  std::string currentPath_ GUARDED_BY(writeLock_);      // of file_
  std::string rebuiltPath_ GUARDED_BY(writeLock_);      // whose lines the history holds
  std::int64_t nextNumber_ GUARDED_BY(writeLock_) = 0;  // of the next line
  LogHistory history_;
};

// A log file sink throws when the numbers in the file that it opens are none. That need not be
// damage: where the oldest line is partly overwritten, its rest may look like a line. The sink of a
// program moves such a file aside, under the name "wall.log.damaged-1" or the next number that is
// free, and writes the line into a new file.
//
// A file has one writer, who holds its lock; while another has it, lines reach the history only,
// and every further line tries again. A file that was renamed or deleted is noticed by the next
// line, which begins a new one under the path.
//
// Owned by the host; the logger's worker writes, any thread may set the path.
class recovering_logfile_sink final : public ILogSink {
 public:
  // What has happened to the file, once for each time. Called on the writing thread.
  using Report = std::function<void(const std::string& message)>;

  // Throws std::invalid_argument for a size below 0.
  recovering_logfile_sink(const LogFileOptions& options, Report report);

  // As in logfile_sink.
  void SetPath(std::string path);
  void Write(std::int32_t level, const LogTime& time, const char* text) override;
  const logfile_sink& sink() const { return sink_; }

 private:
  // Makes the path's file ours, and no other. What to say when it is not; otherwise empty.
  std::string Claim();
  std::string MoveAside(const std::string& reason);
  void ReportOnce(const std::string& message);

  logfile_sink sink_;
  const Report report_;
  os::Mutex lock_;
  std::string path_ GUARDED_BY(lock_);
  // Used by the writing thread.
  os::FileLock claim_;
  std::string claimed_;  // the path of the sink: path_, or empty
  std::string lastReported_;
};

}  // namespace qorp::log
