// logfile_sink: log lines in a file of bounded size, the most recent ones in memory, too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "log/circular_log_file.h"
#include "log/i_log_sink.h"
#include "log/levels.h"
#include "log/log_history.h"

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
  // The next line opens the file again; line numbers and history go on.
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
  void Open(const std::string& path);
  void Rebuild();

  std::mutex lock_;
  std::int32_t maxLevel_;  // guarded by lock_
  std::uint32_t maxSize_;  // guarded by lock_
  std::string path_;       // as configured; guarded by lock_

  std::mutex writeLock_;         // held for the whole of Write; taken before lock_
  CircularLogFile file_;         // guarded by writeLock_
  std::string currentPath_;      // of file_; guarded by writeLock_
  std::string rebuiltPath_;      // whose lines the history holds; guarded by writeLock_
  std::int64_t nextNumber_ = 0;  // of the next line; guarded by writeLock_
  LogHistory history_;
};

}  // namespace qorp::log
