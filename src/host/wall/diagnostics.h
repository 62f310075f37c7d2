// What is wrong with a file, and where.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace host::wall {

// Counted from 1, columns in characters.
struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
};

struct Diagnostic {
  enum class Severity { kWarning, kError };
  Severity severity = Severity::kError;
  Position position;
  std::string message;
};

// All mistakes of one file, collected by its reader.
class Diagnostics {
 public:
  void Error(Position position, std::string message);
  void Warning(Position position, std::string message);

  bool HasErrors() const;
  const std::vector<Diagnostic>& all() const { return all_; }
  // Brings them into the order of the file.
  void Sort();

 private:
  std::vector<Diagnostic> all_;
};

// "wall.toml:3:9: error: ...", the form that editors and build tools read.
std::string ToText(const Diagnostic& diagnostic, const std::string& file);

}  // namespace host::wall
