#include "host/config/diagnostics.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <tuple>
#include <utility>

namespace host::config {

void Diagnostics::Error(Position position, std::string message, std::string key) {
  all_.push_back({Diagnostic::Severity::kError, position, std::move(message), std::move(key)});
}

void Diagnostics::Warning(Position position, std::string message, std::string key) {
  all_.push_back({Diagnostic::Severity::kWarning, position, std::move(message), std::move(key)});
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

namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 26> kOtherWords = {{
    {"fps", "frame_rate"},
    {"framerate", "frame_rate"},
    {"rate", "frame_rate"},
    {"color", "colour"},
    {"url", "source"},
    {"input", "source"},
    {"path", "source"},
    {"uri", "source"},
    {"file", "source"},
    {"file", "url"},
    {"path", "url"},
    {"source", "url"},
    {"title", "name"},
    {"text", "label"},
    {"position", "window"},
    {"rect", "window"},
    {"loop", "repeat"},
    {"crf", "quality"},
    {"gop", "keyframe_interval"},
    {"lang", "language"},
    {"canvas", "wall"},
    {"timeout", "read_limit"},
    {"h265", "hevc"},
    {"x265", "libx265"},
    {"x264", "libx264"},
    {"avc", "h264"},
}};

// Letters and digits only, in lower case, so that "Frame-Rate" is near "frame_rate".
std::string Folded(std::string_view name) {
  std::string folded;
  for (const char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      folded.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
  }
  return folded;
}

// The number of letters left out, put in, changed or exchanged with their neighbour.
std::size_t Slips(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> slips(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        slips[i][j] = i + j;
        continue;
      }
      const std::size_t change = slips[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      slips[i][j] = std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1, change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        slips[i][j] = std::min(slips[i][j], slips[i - 2][j - 2] + 1);
      }
    }
  }
  return slips[a.size()][b.size()];
}

}  // namespace

std::optional<std::string> NearestName(std::string_view written,
                                       const std::vector<std::string>& known) {
  const std::string folded = Folded(written);
  for (const auto& [other, meant] : kOtherWords) {
    if (folded == Folded(other) && std::find(known.begin(), known.end(), meant) != known.end()) {
      return std::string(meant);
    }
  }
  std::optional<std::string> nearest;
  std::size_t fewest = std::max<std::size_t>(folded.size() / 3, 1) + 1;
  for (const std::string& name : known) {
    const std::size_t slips = Slips(folded, Folded(name));
    if (slips < fewest) {
      fewest = slips;
      nearest = name;
    }
  }
  return nearest;
}

}  // namespace host::config
