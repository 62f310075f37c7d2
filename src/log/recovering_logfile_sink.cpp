#include "log/recovering_logfile_sink.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace qorp::log {

recovering_logfile_sink::recovering_logfile_sink(const LogFileOptions& options, Report report)
    : sink_(options), report_(std::move(report)) {}

void recovering_logfile_sink::SetPath(std::string path) {
  const std::lock_guard guard(lock_);
  path_ = std::move(path);
}

std::string recovering_logfile_sink::Claim() {
  std::string path;
  {
    const std::lock_guard guard(lock_);
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
    const std::lock_guard guard(lock_);
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
