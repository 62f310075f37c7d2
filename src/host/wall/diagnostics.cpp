#include "host/wall/diagnostics.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace host::wall {

void Diagnostics::Error(Position position, std::string message) {
  all_.push_back({Diagnostic::Severity::kError, position, std::move(message)});
}

void Diagnostics::Warning(Position position, std::string message) {
  all_.push_back({Diagnostic::Severity::kWarning, position, std::move(message)});
}

bool Diagnostics::HasErrors() const {
  return std::any_of(all_.begin(), all_.end(), [](const Diagnostic& diagnostic) {
    return diagnostic.severity == Diagnostic::Severity::kError;
  });
}

void Diagnostics::Sort() {
  std::stable_sort(all_.begin(), all_.end(), [](const Diagnostic& a, const Diagnostic& b) {
    return std::tie(a.position.line, a.position.column) <
           std::tie(b.position.line, b.position.column);
  });
}

std::string ToText(const Diagnostic& diagnostic, const std::string& file) {
  const char* const severity =
      diagnostic.severity == Diagnostic::Severity::kError ? "error" : "warning";
  return file + ":" + std::to_string(diagnostic.position.line) + ":" +
         std::to_string(diagnostic.position.column) + ": " + severity + ": " + diagnostic.message;
}

}  // namespace host::wall
