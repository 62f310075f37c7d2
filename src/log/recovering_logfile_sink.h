// recovering_logfile_sink: a log file sink that continues in a new file when it cannot continue in
// the old one.
#pragma once

#include <functional>
#include <string>

#include "log/i_log_sink.h"
#include "log/logfile_sink.h"
#include "platform/os/files.h"

namespace qorp::log {

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
  std::mutex lock_;
  std::string path_;  // guarded by lock_
  // Used by the writing thread.
  os::FileLock claim_;
  std::string claimed_;  // the path of the sink: path_, or empty
  std::string lastReported_;
};

}  // namespace qorp::log
