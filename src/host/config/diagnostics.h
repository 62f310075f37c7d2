// What is wrong with a file, where, and which name was probably meant.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host::config {

// Counted from 1, columns in characters.
struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
  bool operator==(const Position&) const = default;
};

struct Diagnostic {
  enum class Severity {
    kNote,     // nothing is wrong; something that the operator should know
    kWarning,  // it works, but probably not as intended
    kError,
  };
  Severity severity = Severity::kError;
  Position position;
  std::string message;
  std::string key{};                     // whose value it is about, where that is known
  std::optional<std::string> nearest{};  // a known name that was probably meant
};

// The positions of the keys of a table in the file: key to position, "options.KEY" for those of its
// table of options. Empty for what no file gives. Settings that differ in nothing else are equal.
struct Places : std::map<std::string, Position, std::less<>> {
  using map::map;
  bool operator==(const Places&) const { return true; }
};

// All mistakes of one file, collected by its reader.
class Diagnostics {
 public:
  void Error(Position position, std::string message, std::string key = {});
  void Warning(Position position, std::string message, std::string key = {});
  void Note(Position position, std::string message);
  void Add(Diagnostic diagnostic) { all_.push_back(std::move(diagnostic)); }

  bool HasErrors() const;
  const std::vector<Diagnostic>& all() const { return all_; }
  // Sorts them by position.
  void Sort();

 private:
  std::vector<Diagnostic> all_;
};

const char* NameOf(Diagnostic::Severity severity);
// "wall.toml:3:9: error: ...", the form that editors and build tools read.
std::string ToText(const Diagnostic& diagnostic, const std::string& file);

// The known name that the written one most resembles: a common other word for it ("fps" for
// "frame_rate"), or one that differs by a few typing errors; nothing when none is near.
std::optional<std::string> NearestName(std::string_view written,
                                       const std::vector<std::string>& known);

}  // namespace host::config
