// FFmpeg's messages: the exception of a failed call, and the path of its log lines.
#pragma once

#include <functional>
#include <string>

#include "util/exceptions.h"

namespace host::ffmpeg {

// FFmpeg's text for an error code, for example "Connection refused".
std::string ErrorText(int code);

// A failed FFmpeg call: what was tried, on what (credentials are masked), and FFmpeg's reason.
class Error : public TavrelException {
 public:
  // tried: for example "cannot open"; where may be empty.
  Error(int code, const std::string& tried, const std::string& where = {});

  const char* what() const noexcept override { return message_.c_str(); }
  // The AVERROR code.
  int code() const { return code_; }
  // The reason alone, without what was tried.
  std::string reason() const { return ErrorText(code_); }

 private:
  int code_;
  std::string message_;
};

// Returns a result that is not negative; throws Error for a negative one.
int Check(int result, const char* tried, const std::string& where = {});

enum class LogLevel { kError, kWarning, kInfo, kVerbose };

// Takes one whole line without its line end, credentials masked. Called on any thread that FFmpeg
// logs on, also concurrently; must not call into FFmpeg.
using LogSink = std::function<void(LogLevel level, const std::string& line)>;

// Sends FFmpeg's lines up to the given level to the sink from now on; an empty sink discards them.
// Until the first call, FFmpeg prints to the error stream. May be called at any time from any
// thread; a line that is being logged may still reach the former sink.
void RouteLog(LogLevel upTo, LogSink sink);

}  // namespace host::ffmpeg
