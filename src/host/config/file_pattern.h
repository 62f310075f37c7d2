// File names that hold the date and the time.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace host::config {

// The conversions that a file name may hold, as strftime has them, and "%%" for a percent sign.
inline constexpr const char* kPatternForms =
    "%Y, %m, %d, %H, %M, %S, %j, %y, %F, %a, %b, and %% for a percent sign";

// What is wrong with a pattern, as what follows its name in a sentence; none when nothing is.
std::optional<std::string> PatternMistake(const std::string& pattern);
// The name at that moment. The pattern has no mistake.
std::string ExpandPattern(const std::string& pattern, const std::tm& time);
// A path whose last part is a pattern, at this moment in local time.
std::string ExpandFileName(const std::string& path);

}  // namespace host::config
