#include "log/log_file.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "log/log_line.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"
#include "util/text_codecs.h"

namespace qorp::log {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kMaxLine = 1 << 20;
constexpr std::size_t kReadSize = 1 << 16;

std::string FormatHeader(std::uint64_t head) {
  return StringFormat("0x%.8X\r\n", static_cast<unsigned>(head));
}

}  // namespace

std::uint32_t CircularLogFile::Open(const std::string& path, os::File::Access access) {
  Close();
  std::uint32_t error = 0;
  if (access == os::File::Access::kReadWrite) {
    // Fails, which is no error, when the file exists.
    if (file_.Create(path) == 0) {
      file_.WriteAt(0, FormatHeader(0));
    }
    error = file_.Open(path, access);
    good_ = error == 0;
  }
  if (!file_.IsOpen()) {
    const std::uint32_t readError = file_.Open(path, os::File::Access::kRead);
    error = error != 0 ? error : readError;
  }
  ReadHeader();
  return error;
}

void CircularLogFile::Close() {
  file_.Close();
  good_ = false;
}

void CircularLogFile::ReadHeader() {
  header_ = Header::kMissing;
  head_ = kHeaderSize;
  size_ = 0;
  std::array<char, kHeaderSize + 1> header{};
  std::size_t count = 0;
  // The size is read second: a concurrent writer extends the file before it updates the header.
  if (!file_.IsOpen() || file_.ReadAt(0, std::span(header).first(kHeaderSize), &count) != 0 ||
      file_.GetSize(&size_) != 0 || count == 0) {
    return;
  }
  char* end = nullptr;
  const std::uint64_t head = std::strtoull(header.data(), &end, 16);
  if (end == header.data()) {
    header_ = Header::kNoNumber;
  } else if (head == 0) {
    header_ = Header::kWhole;
  } else if (head < kHeaderSize || head > size_) {
    header_ = Header::kElsewhere;
  } else {
    header_ = Header::kWhole;
    head_ = head;
  }
}

void CircularLogFile::ReadOldest(const TakeLine& take) const {
  ReadLines(head_, size_, take);
}

void CircularLogFile::ReadNewest(const TakeLine& take) const {
  bool isHeader = true;
  ReadLines(0, head_, [&](std::string_view line, std::uint64_t begin) {
    return std::exchange(isHeader, false) || take(line, begin);
  });
}

void CircularLogFile::ReadLines(std::uint64_t begin, std::uint64_t end,
                                const TakeLine& take) const {
  if (!file_.IsOpen()) {
    return;
  }
  std::uint64_t offset = begin;
  std::vector<char> buffer(kReadSize);
  std::string line;
  std::uint64_t lineBegin = begin;
  const auto takeLine = [&] {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
    const bool proceeds = lineBegin < end && take(line, lineBegin);
    line.clear();
    return proceeds;
  };
  while (lineBegin < end && offset < size_) {
    const std::size_t wanted = std::min<std::uint64_t>(kReadSize, size_ - offset);
    std::size_t count = 0;
    // A read error counts as the end of the file.
    if (file_.ReadAt(offset, std::span(buffer).first(wanted), &count) != 0 || count == 0) {
      break;
    }
    std::string_view rest(buffer.data(), count);
    while (!rest.empty()) {
      const std::size_t length = std::min(rest.find('\n'), rest.size());
      line.append(rest.substr(0, std::min(length, kMaxLine - line.size())));
      const bool ended = length < rest.size();
      rest.remove_prefix(length + (ended ? 1 : 0));
      if (ended) {
        if (!takeLine()) {
          return;
        }
        lineBegin = offset + count - rest.size();
      }
    }
    offset += count;
  }
  // The end of the file ends the last line, too.
  if (!line.empty()) {
    takeLine();
  }
}

std::string CircularLogFile::ReadBytes() const {
  std::string bytes(file_.IsOpen() ? size_ : 0, '\0');
  std::size_t filled = 0;
  std::size_t count = 0;
  while (filled < bytes.size() &&
         file_.ReadAt(filled, std::span(bytes).subspan(filled), &count) == 0 && count != 0) {
    filled += count;
  }
  bytes.resize(filled);
  return bytes;
}

void CircularLogFile::Append(std::string_view line, std::uint32_t maxSize) {
  std::string bytes(line);
  bytes += kLineEnd;
  if (file_.WriteAt(head_, bytes) != 0) {
    good_ = false;
    return;
  }
  head_ += bytes.size();
  if ((maxSize != 0 && head_ > maxSize) || head_ > std::numeric_limits<std::uint32_t>::max()) {
    head_ = kHeaderSize;
  }
  good_ = file_.WriteAt(0, FormatHeader(head_)) == 0;
}

namespace {

// Wraps: a file may hold any number.
std::int64_t Next(std::int64_t number) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(number) + 1);
}

std::uint32_t CheckedSize(std::int32_t bytes) {
  if (bytes < 0) {
    throw std::invalid_argument("the size of a log file cannot be below 0");
  }
  return static_cast<std::uint32_t>(bytes);
}

}  // namespace

logfile_sink::logfile_sink(const LogFileOptions& options)
    : maxLevel_(options.maxLevel),
      maxSize_(CheckedSize(options.maxSize)),
      history_(options.historyCapacity) {}

void logfile_sink::SetPath(std::string path) {
  const os::MutexLock guard(lock_);
  path_ = std::move(path);
}

void logfile_sink::Reopen() {
  const os::MutexLock writing(writeLock_);
  file_.Close();
}

void logfile_sink::SetMaxLevel(std::int32_t maxLevel) {
  const os::MutexLock guard(lock_);
  maxLevel_ = maxLevel;
}

void logfile_sink::SetMaxSize(std::int32_t bytes) {
  const std::uint32_t size = CheckedSize(bytes);
  const os::MutexLock guard(lock_);
  maxSize_ = size;
}

void logfile_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const os::MutexLock writing(writeLock_);
  std::string path;
  std::uint32_t maxSize = 0;
  {
    const os::MutexLock guard(lock_);
    if (level > maxLevel_) {
      return;
    }
    path = path_;
    maxSize = maxSize_;
  }
  if (path != currentPath_ || !file_.IsGood()) {
    Open(path);
  }
  LogHistoryEntry entry{level, MillisecondsOf(time), FormatLogTime(time), text};
  // It stays one line of the file.
  std::replace(entry.text.begin(), entry.text.end(), '\n', ' ');
  std::erase(entry.text, '\r');
  if (file_.IsGood()) {
    file_.Append(FormatLogLine(nextNumber_, entry), maxSize);
  }
  history_.Insert(nextNumber_, std::move(entry));
  nextNumber_ = Next(nextNumber_);
}

// After a failed write the history already holds the lines of the file, and more.
void logfile_sink::Open(const std::string& path) {
  currentPath_ = path;
  if (path != rebuiltPath_) {
    rebuiltPath_.clear();
  }
  if (path.empty()) {
    file_.Close();
    return;
  }
  file_.Open(path, os::File::Access::kReadWrite);
  if (file_.IsOpen() && rebuiltPath_.empty()) {
    try {
      Rebuild();
    } catch (...) {
      // Lines that could not be parsed are not overwritten; the next line tries again.
      file_.Close();
      throw;
    }
    rebuiltPath_ = path;
  }
}

// The oldest line gives the number and is left out, because it is partly overwritten; from there on
// lines are counted, because the numbers of overwritten lines say nothing about their neighbours.
void logfile_sink::Rebuild() {
  history_.Clear();
  nextNumber_ = 0;
  bool isNumbered = false;
  const auto insert = [&](std::string_view line) {
    writeLock_.AssertHeld();
    history_.Insert(nextNumber_, ParseLogLine(line));
    nextNumber_ = Next(nextNumber_);
  };
  file_.ReadOldest([&](std::string_view line, std::uint64_t) {
    writeLock_.AssertHeld();
    if (!IsLogLine(line)) {
      return true;
    }
    if (isNumbered) {
      insert(line);
    } else {
      nextNumber_ = ParseLogLineNumber(line);
      isNumbered = true;
    }
    return true;
  });
  file_.ReadNewest([&](std::string_view line, std::uint64_t) {
    const bool whole = IsLogLine(line);
    if (whole) {
      insert(line);
    }
    return whole;
  });
}

recovering_logfile_sink::recovering_logfile_sink(const LogFileOptions& options, Report report)
    : sink_(options), report_(std::move(report)) {}

void recovering_logfile_sink::SetPath(std::string path) {
  const os::MutexLock guard(lock_);
  path_ = std::move(path);
}

std::string recovering_logfile_sink::Claim() {
  std::string path;
  {
    const os::MutexLock guard(lock_);
    path = path_;
  }
  if (path.empty() || claim_.IsHeldAt(path)) {
    if (path.empty()) {
      claim_.Release();
    }
    if (path != claimed_) {
      sink_.SetPath(claimed_ = path);
    }
    return {};
  }
  const std::uint32_t error = claim_.Take(path);
  // The sink finds all other errors.
  const bool isOthers = error == os::kErrorSharingViolation;
  claimed_ = isOthers ? "" : path;
  sink_.SetPath(claimed_);
  sink_.Reopen();
  return isOthers ? "the log file " + os::NativePath(path) +
                        " is written by another program: nothing is written to it until that ends"
                  : "";
}

void recovering_logfile_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  std::string message = Claim();
  try {
    sink_.Write(level, time, text);
    ReportOnce(message);
    return;
  } catch (const std::invalid_argument& error) {
    message = MoveAside(error.what());
  } catch (const std::out_of_range& error) {
    message = MoveAside(error.what());
  }
  Claim();
  try {
    sink_.Write(level, time, text);
  } catch (const std::logic_error&) {
    // It could not be moved; the message says so.
  }
  ReportOnce(message);
}

// Returns the message about it.
std::string recovering_logfile_sink::MoveAside(const std::string& reason) {
  std::string path;
  {
    const os::MutexLock guard(lock_);
    path = os::NativePath(path_);
  }
  std::string target;
  std::error_code failure;
  for (int number = 1; target.empty() || std::filesystem::exists(target, failure); ++number) {
    target = path + ".damaged-" + std::to_string(number);
  }
  failure.clear();
  std::filesystem::rename(path, target, failure);
  const std::string cause = "the log file " + path + " cannot be continued (" + reason + ")";
  return failure ? cause + " nor moved aside (" + failure.message() +
                       "): nothing is written to it; remove it or name another file"
                 : cause + ": it was moved to " + target + ", and a new one was begun";
}

void recovering_logfile_sink::ReportOnce(const std::string& message) {
  if (std::exchange(lastReported_, message) != message && !message.empty()) {
    report_(message);
  }
}

}  // namespace qorp::log
