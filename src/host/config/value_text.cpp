#include "host/config/value_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

namespace host::config {

namespace {

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
    text.remove_suffix(1);
  }
  return text;
}

template <typename Number>
std::optional<Number> WholeNumber(std::string_view text) {
  text = Trimmed(text);
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return {};
  }
  return number;
}

// A number that is not negative and what follows it.
std::optional<std::pair<double, std::string_view>> NumberAndUnit(std::string_view text) {
  text = Trimmed(text);
  double number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || !(number >= 0) || !std::isfinite(number)) {
    return {};
  }
  return std::make_pair(number, Trimmed(text.substr(static_cast<std::size_t>(end - text.data()))));
}

std::optional<std::pair<int, int>> TwoNumbers(std::string_view text, std::string_view separators) {
  const std::size_t middle = text.find_first_of(separators);
  if (middle == std::string_view::npos) {
    return {};
  }
  const auto first = WholeNumber<int>(text.substr(0, middle));
  const auto second = WholeNumber<int>(text.substr(middle + 1));
  if (!first || !second || *first < 1 || *second < 1) {
    return {};
  }
  return std::make_pair(*first, *second);
}

bool AllHex(std::string_view digits) {
  return std::all_of(digits.begin(), digits.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; });
}

}  // namespace

std::optional<Ratio> FrameRateOf(double framesPerSecond) {
  for (const int nominal : {24, 30, 48, 60, 120}) {
    // Written with two or three digits.
    if (std::abs(framesPerSecond - nominal * 1000.0 / 1001.0) < 0.006) {
      return Ratio{nominal * 1000, 1001};
    }
  }
  const double rounded = std::round(framesPerSecond * 1000.0);
  if (!(framesPerSecond > 0) || framesPerSecond > 1000.0 ||
      std::abs(rounded - framesPerSecond * 1000.0) > 1e-6) {
    return {};
  }
  return Reduced(Ratio{static_cast<std::int32_t>(rounded), 1000});
}

std::optional<Ratio> ParseFrameRate(std::string_view text) {
  if (const auto fraction = TwoNumbers(text, "/")) {
    return Reduced(Ratio{fraction->first, fraction->second});
  }
  const auto number = NumberAndUnit(text);
  return number && number->second.empty() ? FrameRateOf(number->first) : std::nullopt;
}

std::string TextOf(Ratio ratio) {
  const std::string text = std::to_string(ratio.num);
  return ratio.den == 1 ? text : text + "/" + std::to_string(ratio.den);
}

std::optional<std::pair<int, int>> ParseSize(std::string_view text) {
  return TwoNumbers(text, "x");
}

std::optional<Ratio> ParseAspect(std::string_view text) {
  const auto terms = TwoNumbers(text, ":/");
  if (!terms || terms->first > kLargestCanvas || terms->second > kLargestCanvas) {
    return {};
  }
  return Reduced(Ratio{terms->first, terms->second});
}

std::optional<Time> ParseDuration(std::string_view text) {
  const auto number = NumberAndUnit(text);
  if (!number) {
    return {};
  }
  const auto [value, unit] = *number;
  double seconds = 0;
  if (unit.empty() || unit == "s") {
    seconds = value;
  } else if (unit == "ms") {
    seconds = value / 1000.0;
  } else if (unit == "min") {
    seconds = value * 60.0;
  } else if (unit == "h") {
    seconds = value * 3600.0;
  } else {
    return {};
  }
  if (seconds > 1e9) {
    return {};
  }
  return static_cast<Time>(std::llround(seconds * kSecond));
}

ProgramChoice ParseProgram(const std::string& text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size() && number >= 1 &&
                        number <= kMaxProgram;
  return isNumber ? ProgramChoice{number, {}} : ProgramChoice{0, text};
}

Time DelayInFrames(Time delay, Ratio frameRate) {
  return kMaxDelay - FrameStart(NearestFrame(kMaxDelay - delay, frameRate), frameRate);
}

std::optional<std::int64_t> ParseBitRate(std::string_view text) {
  const auto number = NumberAndUnit(text);
  if (!number || number->first > 1e12) {
    return {};
  }
  double factor = 1;
  if (number->second == "k") {
    factor = 1e3;
  } else if (number->second == "M") {
    factor = 1e6;
  } else if (!number->second.empty()) {
    return {};
  }
  return std::llround(number->first * factor);
}

std::optional<std::int32_t> ParseByteSize(std::string_view text) {
  text = Trimmed(text);
  int shift = 0;
  if (!text.empty()) {
    const std::size_t unit = std::string_view("KMG").find(text.back());
    if (unit != std::string_view::npos) {
      shift = 10 * (static_cast<int>(unit) + 1);
      text.remove_suffix(1);
    }
  }
  const auto number = WholeNumber<std::int64_t>(text);
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  if (!number || *number < 0 || *number > kMost >> shift) {
    return {};
  }
  return static_cast<std::int32_t>(*number << shift);
}

std::optional<std::int64_t> ParseFileSize(std::string_view text) {
  static constexpr std::pair<std::string_view, double> kUnits[] = {
      {"", 1}, {"kB", 1e3}, {"MB", 1e6}, {"GB", 1e9}, {"TB", 1e12}};
  const auto number = NumberAndUnit(text);
  for (const auto& [unit, factor] : kUnits) {
    if (number && number->second == unit && number->first * factor <= 1e18) {
      return std::llround(number->first * factor);
    }
  }
  return {};
}

std::optional<Endpoint> ParseEndpoint(std::string_view text) {
  constexpr std::uint16_t kSyslogPort = 514;
  text = Trimmed(text);
  if (text.empty()) {
    return Endpoint{};
  }
  std::string_view host = text;
  std::string_view rest;
  if (text.front() == '[') {
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) {
      return {};
    }
    host = text.substr(1, end - 1);
    rest = text.substr(end + 1);
  } else if (const std::size_t colon = text.find(':'); colon != std::string_view::npos) {
    host = text.substr(0, colon);
    rest = text.substr(colon);
  }
  if (host.empty()) {
    return {};
  }
  if (rest.empty()) {
    return Endpoint{std::string(host), kSyslogPort};
  }
  const auto port = rest.front() == ':' ? WholeNumber<std::uint16_t>(rest.substr(1)) : std::nullopt;
  if (!port || *port == 0) {
    return {};
  }
  return Endpoint{std::string(host), *port};
}

bool IsLabelColour(std::string_view text) {
  const std::size_t length = text.size();
  return (length == 4 || length == 5 || length == 7 || length == 9) && text.front() == '#' &&
         AllHex(text.substr(1));
}

std::optional<Rgb> ParseRgb(std::string_view text) {
  if ((text.size() != 4 && text.size() != 7) || text.front() != '#' || !AllHex(text.substr(1))) {
    return {};
  }
  const std::size_t digits = text.size() == 4 ? 1 : 2;
  const auto part = [&](std::size_t index) {
    unsigned value = 0;
    const char* const start = text.data() + 1 + index * digits;
    std::from_chars(start, start + digits, value, 16);
    return static_cast<std::uint8_t>(digits == 1 ? value * 17 : value);
  };
  return Rgb{part(0), part(1), part(2)};
}

namespace {

constexpr std::string_view kConversions = "YmdHMSjyFab%";

}  // namespace

std::optional<std::string> PatternMistake(const std::string& pattern) {
  for (std::size_t at = pattern.find('%'); at != std::string::npos;
       at = pattern.find('%', at + 2)) {
    if (at + 1 == pattern.size() || kConversions.find(pattern[at + 1]) == std::string_view::npos) {
      return "has the unknown conversion \"" + pattern.substr(at, 2) + "\"; a name may hold " +
             kPatternForms;
    }
  }
  return {};
}

std::string ExpandPattern(const std::string& pattern, const std::tm& time) {
  std::string name;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%' || i + 1 == pattern.size()) {
      name += pattern[i];
      continue;
    }
    const char conversion[] = {'%', pattern[++i], '\0'};
    std::array<char, 64> text{};
    name.append(text.data(), std::strftime(text.data(), text.size(), conversion, &time));
  }
  return name;
}

std::string ExpandFileName(const std::string& path) {
  const std::filesystem::path whole(path);
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return (whole.parent_path() / ExpandPattern(whole.filename().string(), local)).string();
}

}  // namespace host::config
