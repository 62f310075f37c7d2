#include "host/config/toml_file.h"

#include <cstddef>
#include <string_view>

namespace host::config {

namespace {

constexpr int kMaxMistakes = 20;

struct LineRange {
  std::size_t begin = 0;
  std::size_t end = 0;  // of its line end
};

LineRange FindLine(const std::string& text, std::size_t line) {
  LineRange range;
  for (std::size_t i = 1; i < line; ++i) {
    const std::size_t next = text.find('\n', range.begin);
    if (next == std::string::npos) {
      break;
    }
    range.begin = next + 1;
  }
  const std::size_t end = text.find('\n', range.begin);
  range.end = end == std::string::npos ? text.size() : end;
  return range;
}

std::string_view Between(std::string_view text, std::string_view before, std::string_view after) {
  const std::size_t start = text.find(before);
  if (start == std::string_view::npos) {
    return {};
  }
  text.remove_prefix(start + before.size());
  return text.substr(0, text.rfind(after));
}

// The parser's words, shortened; what is given twice said plainly.
std::string Message(std::string_view description) {
  constexpr std::string_view kTwice = "cannot redefine existing ";
  if (const std::size_t twice = description.find(kTwice); twice != std::string_view::npos) {
    const std::string name(Between(description.substr(twice), "'", "'"));
    const bool isTable = description.substr(twice + kTwice.size()).starts_with("table") ||
                         description.find("table header") != std::string_view::npos;
    return isTable ? "[" + name + "] is given twice" : "\"" + name + "\" is given twice";
  }
  if (description.find("unescaped control characters") != std::string_view::npos) {
    return "not valid TOML: the text is not closed in its line";
  }
  constexpr std::string_view kStart = "Error while parsing ";
  if (description.starts_with(kStart)) {
    description.remove_prefix(kStart.size());
  }
  std::string message = "not valid TOML: ";
  for (const char c : description) {
    message += c == '\n' ? std::string("line end") : std::string(1, c);
  }
  return message;
}

bool IsKeyValueLine(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t");
  return first != std::string_view::npos && line[first] != '[' && line[first] != '#' &&
         line.find('=') != std::string_view::npos;
}

}  // namespace

TomlFile ParseToml(const std::string& text, Diagnostics& diagnostics) {
  TomlFile file;
  std::string remaining = text;
  for (int mistakes = 0; mistakes < kMaxMistakes; ++mistakes) {
    try {
      file.table = toml::parse(std::string_view(remaining));
      return file;
    } catch (const toml::parse_error& error) {
      const std::string_view description = error.description();
      const bool atEnd = description.find("end-of-file") != std::string_view::npos;
      if (atEnd && !file.complete) {
        // Something that opens in a line that was left out, or that a mistake already named.
        return file;
      }
      file.complete = false;
      const toml::source_position at = error.source().begin;
      const LineRange range = FindLine(remaining, at.line);
      const std::string_view line =
          std::string_view(remaining).substr(range.begin, range.end - range.begin);
      Position position{at.line, at.column};
      if (description.find("cannot redefine") != std::string_view::npos) {
        const std::size_t first = line.find_first_not_of(" \t");
        position.column = first == std::string_view::npos ? 1 : first + 1;
      }
      diagnostics.Error(position, Message(description));
      if (!IsKeyValueLine(line)) {
        return file;
      }
      remaining.replace(range.begin, range.end - range.begin, line.size(), ' ');
    }
  }
  return file;
}

}  // namespace host::config
