#include "host/config/diagnostics.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace host::config {

void Diagnostics::Error(Position position, std::string message) {
  all_.push_back({Diagnostic::Severity::kError, position, std::move(message)});
}

void Diagnostics::Warning(Position position, std::string message) {
  all_.push_back({Diagnostic::Severity::kWarning, position, std::move(message)});
}

void Diagnostics::Note(Position position, std::string message) {
  all_.push_back({Diagnostic::Severity::kNote, position, std::move(message)});
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

const char* NameOf(Diagnostic::Severity severity) {
  switch (severity) {
    case Diagnostic::Severity::kNote:
      return "note";
    case Diagnostic::Severity::kWarning:
      return "warning";
    case Diagnostic::Severity::kError:
      break;
  }
  return "error";
}

std::string ToText(const Diagnostic& diagnostic, const std::string& file) {
  return file + ":" + std::to_string(diagnostic.position.line) + ":" +
         std::to_string(diagnostic.position.column) + ": " + NameOf(diagnostic.severity) + ": " +
         diagnostic.message;
}

}  // namespace host::config
