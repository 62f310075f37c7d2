#include "host/control/http/message.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include <nlohmann/json.hpp>

#include "host/control/event_feed.h"

namespace host::control::http {

namespace {

using Json = nlohmann::ordered_json;
using Kind = CommandError::Kind;

struct Form {
  int status;
  const char* type;
  const char* title;
};

Form FormOf(Kind kind) {
  switch (kind) {
    case Kind::kMalformed:
      return {422, "malformed-command", "The command is malformed"};
    case Kind::kUnknown:
      return {422, "unknown-name", "The name is not known"};
    case Kind::kConflict:
      return {409, "conflict", "The wall does not allow it as it is"};
    case Kind::kRestart:
      return {409, "needs-restart", "Only a restart changes it"};
    case Kind::kStale:
      return {412, "stale", "The wall has changed since"};
    case Kind::kBusy:
      return {503, "busy", "The wall cannot take it now"};
    case Kind::kFailed:
      return {500, "failed", "It could not be carried out"};
  }
  return {500, "failed", "It could not be carried out"};
}

}  // namespace

Problem Problem::Of(const CommandError& error, const std::string& fromPath) {
  const bool isPath = !fromPath.empty() && error.pointer() == "/" + fromPath;
  const Form form = isPath && error.kind() == Kind::kUnknown
                        ? Form{404, "unknown-name", "The name is not known"}
                        : FormOf(error.kind());
  Problem problem(form.status, form.type, form.title, error.detail());
  problem.pointer_ = isPath ? "" : error.pointer();
  problem.nearest_ = error.nearest();
  if (form.status == 503) {
    problem.With("Retry-After", "1");
  }
  return problem;
}

Json Problem::ToJson() const {
  Json json;
  json["type"] = "urn:tavrel:problem:" + type_;
  json["title"] = title_;
  json["status"] = status_;
  json["detail"] = detail_;
  if (!pointer_.empty()) {
    json["pointer"] = pointer_;
  }
  if (nearest_) {
    json["nearest"] = *nearest_;
  }
  return json;
}

Answer Problem::ToAnswer() const {
  return {status_, "application/problem+json", OneLine(ToJson()), fields_};
}

std::optional<std::string> PercentDecoded(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    unsigned byte = 0;
    const char* const digits = text.data() + i + 1;
    if (i + 2 >= text.size() || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) {
      return std::nullopt;
    }
    decoded += static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

bool EqualsIgnoringCase(const std::string& one, const std::string& other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

}  // namespace host::control::http
