// Values that a wall file writes as text, names of files with patterns included.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/config/wall.h"
#include "host/units.h"

namespace host::config {

// "25", "30000/1001", "29.97" (which is taken for 30000/1001); nothing for other texts. The range
// is not checked.
std::optional<Ratio> ParseFrameRate(std::string_view text);
std::optional<Ratio> FrameRateOf(double framesPerSecond);

// "25", "30000/1001".
std::string TextOf(Ratio ratio);

// A name within a sentence.
inline std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

// "960x540": width and height.
std::optional<std::pair<int, int>> ParseSize(std::string_view text);

// "16:9" or "16/9", reduced; both terms from 1 to 8192.
std::optional<Ratio> ParseAspect(std::string_view text);

// A number and a unit: "250 ms", "1.5s", "2 min", "1 h"; a number alone is seconds.
std::optional<Time> ParseDuration(std::string_view text);

// The number of a program from 1 to 65535, or otherwise the name of a service.
ProgramChoice ParseProgram(const std::string& text);

// The delay nearest to this one that is shorter than kMaxDelay by whole frames: frames stay on the
// grid of the canvas.
Time DelayInFrames(Time delay, Ratio frameRate);

// "800k", "6M", "6000000": bits per second.
std::optional<std::int64_t> ParseBitRate(std::string_view text);

// "500000", "64K", "10M", "1G", 1024 to the K: bytes, at most 2147483647.
std::optional<std::int32_t> ParseByteSize(std::string_view text);
inline constexpr const char* kByteSizeForm =
    "must be a number of bytes, such as 500000, 64K or 10M, below 2G; 0 for no limit";

// "500 MB", "2 GB", 1000 to the kB: bytes.
std::optional<std::int64_t> ParseFileSize(std::string_view text);

// "host", "host:port", "[::1]:port"; the port is that of syslog when none is given. An
// empty text has an empty host: no endpoint.
std::optional<Endpoint> ParseEndpoint(std::string_view text);
inline constexpr const char* kEndpointForm = "must be HOST:PORT, the port 1 to 65535";

// "127.0.0.1:8080", "[::1]:8080", "localhost:8080" (which is 127.0.0.1): an address of this machine
// and a port, 0 for any that is free.
std::optional<Endpoint> ParseListenAddress(std::string_view text);
inline constexpr const char* kListenForm =
    "must be ADDRESS:PORT with an address of this machine: \"127.0.0.1:8080\", \"[::]:8080\"";
// What is wrong with the settings as a whole: a key, and what follows it in a sentence.
std::optional<std::pair<std::string, std::string>> HttpMistake(const Http& http);

// "#RGB", "#ARGB", "#RRGGBB" or "#AARRGGBB".
bool IsLabelColour(std::string_view text);

// "#RGB" or "#RRGGBB".
std::optional<Rgb> ParseRgb(std::string_view text);

// The conversions that a file name may hold, as strftime has them, and "%%" for a percent sign.
inline constexpr const char* kPatternForms =
    "%Y, %m, %d, %H, %M, %S, %j, %y, %F, %a, %b, and %% for a percent sign";

// What is wrong with a pattern, as what follows the key in a sentence; none when it is valid.
std::optional<std::string> PatternMistake(const std::string& pattern);
// The name at that moment. The pattern has no mistake.
std::string ExpandPattern(const std::string& pattern, const std::tm& time);
// A path whose last part is a pattern, at this moment in local time.
std::string ExpandFileName(const std::string& path);

}  // namespace host::config
