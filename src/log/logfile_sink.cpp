#include "log/logfile_sink.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "log/log_line.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace qorp::log {
namespace {

// What stands in a file may be any number.
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
  // Whatever it holds, it stays one line of the file.
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
      // Nothing is written over lines that were not understood; the next line tries again.
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
  // Whatever else is wrong is for the sink to find.
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

// What to say of it.
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
