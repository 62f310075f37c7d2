#include "host/config/file_pattern.h"

#include <array>
#include <filesystem>
#include <string_view>
namespace host::config {
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
