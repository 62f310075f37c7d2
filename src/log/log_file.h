// Log files: CircularLogFile, their format; logfile_sink, which writes one and keeps the most
// recent lines in memory, too; recovering_logfile_sink, which continues in a new file when it
// cannot continue in the old one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "log/i_log_perf.h"
#include "log/log_line.h"
#include "platform/os/files.h"
#include "platform/os/mutex.h"

namespace qorp::log {

// A file of bounded size whose newest lines overwrite the oldest:
//
//   offset 0    "0x0000BEEF" CR LF    the header: the head, where the next line will be written
//   offset 12   line CR LF ...        the newest lines, up to the head
//   head        line CR LF ...        the oldest lines, the first of them partly overwritten
//
// A line is written before the header that counts it. A writer that dies in between, or in the
// middle of the line, leaves a header that names the end of the line before: no line that a header
// counted is lost, and writing continues there. The header is written in one call of 12 bytes; a
// crash does not leave it half written.
//
// Used by one thread. System errors show in IsOpen and IsGood; nothing throws but std::bad_alloc.
class CircularLogFile {
 public:
  static constexpr std::uint64_t kHeaderSize = 12;

  // A line and the offset at which it begins; false ends the reading.
  using TakeLine = std::function<bool(std::string_view line, std::uint64_t begin)>;

  // The state of the header. Any but a whole one is treated as that of a new file: writing begins
  // at 12.
  enum class Header {
    kMissing,    // the file is empty, or not open
    kWhole,      // names a place in the file, or 0
    kNoNumber,   // begins with no hexadecimal number
    kElsewhere,  // names a place that is not in the file
  };

  // kReadWrite makes the file when there is none, and falls back to reading alone. Returns one of
  // the system's error numbers, 0 when it is open as requested.
  std::uint32_t Open(const std::string& path, os::File::Access access);
  void Close();
  bool IsOpen() const { return file_.IsOpen(); }
  // Open for writing, and no write has failed since.
  bool IsGood() const { return file_.IsOpen() && good_; }

  Header header() const { return header_; }
  // Where the next line will be written, and the size of the file, both as they were when the
  // header was read.
  std::uint64_t head() const { return head_; }
  std::uint64_t size() const { return size_; }
  // Reads the header again, for a reader beside the writer.
  void ReadHeader();
  // True while the path still leads to the file that is open.
  bool IsAt(const std::string& path) const { return file_.IsAt(path); }

  // The lines from the head to the end of the file, and those from the header to the head. Lines
  // come without their ends, and cut when longer than 1 MiB.
  void ReadOldest(const TakeLine& take) const;
  void ReadNewest(const TakeLine& take) const;
  // The lines that begin at begin or later, and before end.
  void ReadLines(std::uint64_t begin, std::uint64_t end, const TakeLine& take) const;
  // All bytes in one read, which leaves a concurrent writer the least time to change them. Bytes
  // that cannot be read are missing at the end.
  std::string ReadBytes() const;

  // Writes a line, and the header that counts it. maxSize in bytes: when a line ends beyond it, the
  // next one is written at 12 again; 0 for no limit but that of the header, 4 GiB.
  void Append(std::string_view line, std::uint32_t maxSize);

 private:
  os::File file_;
  bool good_ = false;
  Header header_ = Header::kMissing;
  std::uint64_t head_ = kHeaderSize;
  std::uint64_t size_ = 0;
};

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
// are rebuilt from it. Lines without five fields are left out. A line with an invalid number makes
// this and every further Write throw and leaves the file as it is, until its owner moves the file
// or sets another path.
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

// logfile_sink throws when it opens a file with an invalid number in it. That need not be damage:
// the rest of a partly overwritten line may look like a line. This sink moves such a file aside,
// under the name "wall.log.damaged-1" or the next number that is free, and writes the line into a
// new file.
//
// A file has one writer, which holds its lock; while another program has it, lines reach the
// history only, and every further line tries again. A file that was renamed or deleted is noticed
// by the next line, which begins a new one under the path.
//
// Owned by the host; the logger's worker writes, any thread may set the path.
class recovering_logfile_sink final : public ILogSink {
 public:
  // Called on the writing thread, once for each event that affects the file.
  using Report = std::function<void(const std::string& message)>;

  // Throws std::invalid_argument for a size below 0.
  recovering_logfile_sink(const LogFileOptions& options, Report report);

  // As in logfile_sink.
  void SetPath(std::string path);
  void Write(std::int32_t level, const LogTime& time, const char* text) override;
  const logfile_sink& sink() const { return sink_; }

 private:
  // Takes the lock of the path's file and releases any other. Returns a message when another
  // program has the lock, otherwise an empty text.
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
