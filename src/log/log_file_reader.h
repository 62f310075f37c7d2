// LogFileReader: the lines of a log file in the order in which they were written.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log/log_file.h"
#include "log/log_line.h"

namespace qorp::log {

// Reads a log file once, or repeatedly beside its writer, which may wrap, restart or replace the
// file meanwhile. Only whole lines that a header has counted are handed over: neither rests of
// overwritten lines nor a line whose writer died or is still writing it.
//
// Lines are ordered by their place in the file, not by their numbers, which step back where a
// writer took the file over. Only the end of the file may hold lines older than all others, from
// before the file was made smaller.
//
// One thread.
class LogFileReader {
 public:
  using TakeLine = std::function<void(const NumberedLogLine&)>;

  enum class State {
    kRead,
    kUnreadable,  // see error
    kEmpty,       // not even a header, as when its writer is just making it
    kDamaged,     // see header: the place of the newest line is unknown
  };
  struct Result {
    State state = State::kRead;
    std::uint32_t error = 0;  // of the system
    CircularLogFile::Header header = CircularLogFile::Header::kWhole;
    std::int64_t lost = 0;  // lines overwritten unread since the reading before
  };

  // The system's form of a path, or a native one.
  explicit LogFileReader(std::string path) : path_(std::move(path)) {}

  // Hands over the lines that were written since the reading before, or all the first time. None
  // while the writer wraps the file faster than it can be read; the next reading counts the lost
  // lines.
  Result Read(const TakeLine& take);
  // Every line of a file whose header is damaged, in the order of their times. Throws nothing;
  // nothing is handed over when the file cannot be read.
  void Salvage(const TakeLine& take);

  // The size of the file and the place that its header names; valid after a reading.
  std::uint64_t size() const { return file_.size(); }

 private:
  struct PlacedLine {
    NumberedLogLine line;
    std::uint64_t begin = 0;  // in the file
    std::uint64_t end = 0;    // after its line end
  };
  using Lines = std::vector<PlacedLine>;
  struct Snapshot {
    Lines lines;             // of the whole file in order; none when it changed too much meanwhile
    std::uint64_t head = 0;  // after the last of them
  };
  // The line numbers before and after each gap.
  using Gaps = std::vector<std::pair<std::int64_t, std::int64_t>>;

  std::uint32_t Open();
  void ReadHeader();
  bool ReadFromStart(const TakeLine& take);
  bool ReadOn(const TakeLine& take);
  std::int64_t ReadAll(const TakeLine& take);
  Lines Collect(std::uint64_t begin, std::uint64_t end) const;
  static Lines Parse(std::string_view bytes, std::uint64_t begin, std::uint64_t end);
  Snapshot TakeSnapshot();
  static Gaps FindGaps(const Lines& lines);
  static void SortByTime(Lines& lines);
  // Whether the first of the oldest lines is really one that was being written.
  static bool IsUncounted(const Lines& oldest, const Lines& newest);
  bool IsLastInPlace() const;

  const std::string path_;
  CircularLogFile file_;
  std::optional<PlacedLine> last_;  // handed over
  std::uint64_t lastEnd_ = 0;       // up to here everything was read
};

}  // namespace qorp::log
