// The parts of a request that the API reads, and its answers, independent of the transport.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/control/command.h"
#include "util/exceptions.h"

namespace host::control::http {

// Everything of a request before its body. Header fields are empty when they are missing.
struct Head {
  std::string method;
  std::string path;   // still encoded
  std::string query;  // likewise, without "?"
  std::string host;
  std::string origin;
  std::string fetchSite;
  std::string authorization;
  std::string cookie;
  std::string contentType;
  std::string ifMatch;
  std::string ifNoneMatch;
  std::string lastEventId;
  bool hasOneHost = false;
  bool hasBody = false;
  bool isUpgrade = false;  // to a WebSocket
  bool isTls = false;
  std::string peer;   // address of the client
  std::string local;  // address at which it came in
};

struct Answer {
  int status = 200;
  std::string contentType = "application/json";
  std::string body{};
  std::vector<std::pair<std::string, std::string>> fields{};  // further fields of the header
};

// A refusal, as application/problem+json. Thrown by everything that checks a request.
class Problem : public TavrelException {
 public:
  // type: the last part of its URN, such as "unknown-host".
  Problem(int status, std::string type, std::string title, std::string detail)
      : status_(status),
        type_(std::move(type)),
        title_(std::move(title)),
        detail_(std::move(detail)) {}
  // fromPath: the field of the command, if any, that the path of the request gives.
  static Problem Of(const CommandError& error, const std::string& fromPath);
  static Problem Malformed(std::string detail, int status = 422) {
    return {status, "malformed-request", "The request is malformed", std::move(detail)};
  }
  static Problem NoPreview() {
    return {409, "no-preview", "The wall has no preview",
            "\"preview\" in [http] of the wall file is false"};
  }

  Problem& With(std::string field, std::string value) {
    fields_.emplace_back(std::move(field), std::move(value));
    return *this;
  }
  int status() const { return status_; }
  nlohmann::ordered_json ToJson() const;
  Answer ToAnswer() const;
  const char* what() const noexcept override { return detail_.c_str(); }

 private:
  int status_;
  std::string type_;
  std::string title_;
  std::string detail_;
  std::string pointer_;
  std::optional<std::string> nearest_;
  std::vector<std::pair<std::string, std::string>> fields_;
};

// Decodes "%41" and the like; none when the encoding is invalid.
std::optional<std::string> PercentDecoded(const std::string& text);
bool EqualsIgnoringCase(const std::string& one, const std::string& other);

}  // namespace host::control::http
