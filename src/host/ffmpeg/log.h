// The path of FFmpeg's own log lines.
#pragma once

#include <functional>
#include <string>

namespace host::ffmpeg {

enum class LogLevel { kError, kWarning, kInfo, kVerbose };

// Takes one whole line without its line end, credentials masked. Called from whatever thread FFmpeg
// logs on, several at a time; must not call into FFmpeg.
using LogSink = std::function<void(LogLevel level, const std::string& line)>;

// Sends FFmpeg's lines up to the given level to the sink from now on; an empty sink discards all of
// them. Until the first call FFmpeg's own printing to the error stream is in force. May be called
// at any time from any thread; a line that is under way may still reach the former sink.
void RouteLog(LogLevel upTo, LogSink sink);

}  // namespace host::ffmpeg
