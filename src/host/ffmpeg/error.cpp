#include "host/ffmpeg/error.h"

#include <array>
#include <cstdarg>
#include <memory>
#include <utility>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "host/ffmpeg/mask.h"
#include "platform/os/mutex.h"

namespace host::ffmpeg {

std::string ErrorText(int code) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(code, text.data(), text.size());
  return text.data();
}

Error::Error(int code, const std::string& tried, const std::string& where) : code_(code) {
  message_ = tried;
  if (!where.empty()) {
    message_ += " \"" + MaskUrl(where) + "\"";
  }
  message_ += ": " + ErrorText(code);
}

int Check(int result, const char* tried, const std::string& where) {
  if (result < 0) {
    throw Error(result, tried, where);
  }
  return result;
}

namespace {

os::Mutex sinkLock;
std::shared_ptr<const LogSink> currentSink GUARDED_BY(sinkLock);

std::shared_ptr<const LogSink> Sink() {
  const os::MutexLock guard(sinkLock);
  return currentSink;
}

int ToAvLevel(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return AV_LOG_ERROR;
    case LogLevel::kWarning:
      return AV_LOG_WARNING;
    case LogLevel::kInfo:
      return AV_LOG_INFO;
    case LogLevel::kVerbose:
      return AV_LOG_VERBOSE;
  }
  return AV_LOG_INFO;
}

LogLevel FromAvLevel(int level) {
  if (level <= AV_LOG_ERROR) {
    return LogLevel::kError;
  }
  if (level <= AV_LOG_WARNING) {
    return LogLevel::kWarning;
  }
  return level <= AV_LOG_INFO ? LogLevel::kInfo : LogLevel::kVerbose;
}

// FFmpeg logs pieces of lines; each thread collects its own up to the end of the line.
struct PartialLine {
  std::string text;
  int printPrefix = 1;
};
thread_local PartialLine partialLine;

void Callback(void* object, int level, const char* format, va_list arguments) {
  if ((level & 0xff) > av_log_get_level()) {
    return;
  }
  std::array<char, 2048> piece{};
  av_log_format_line2(object, level, format, arguments, piece.data(),
                      static_cast<int>(piece.size()), &partialLine.printPrefix);
  partialLine.text += piece.data();
  constexpr std::size_t kMaxLine = 64 << 10;  // bytes; what has no end by then is a line
  if (partialLine.text.size() < kMaxLine &&
      (partialLine.text.empty() || partialLine.text.back() != '\n')) {
    return;
  }
  std::string line = std::exchange(partialLine.text, {});
  line.erase(line.find_last_not_of("\r\n") + 1);
  if (const auto sink = Sink(); sink && *sink && !line.empty()) {
    (*sink)(FromAvLevel(level & 0xff), MaskCredentials(line));
  }
}

}  // namespace

void RouteLog(LogLevel upTo, LogSink sink) {
  auto next = std::make_shared<const LogSink>(std::move(sink));
  {
    const os::MutexLock guard(sinkLock);
    currentSink.swap(next);
  }
  av_log_set_level(ToAvLevel(upTo));
  av_log_set_callback(&Callback);
}

}  // namespace host::ffmpeg
