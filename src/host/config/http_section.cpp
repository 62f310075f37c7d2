#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>
#include <tuple>

#include "host/config/sections.h"
#include "host/config/value_text.h"
#include "platform/os/sockets.h"

namespace host::config {

namespace {

constexpr std::size_t kMaxHosts = 32;
constexpr int kSmallestPreview = 64;  // pixels
constexpr int kLargestPreview = 3840;

bool IsLoopback(const std::string& host) {
  return host == "::1" || host.starts_with("127.");
}

void ReadFileName(TableReader& reader, const char* key, const FileContext& context,
                  std::filesystem::path& file) {
  const auto name = reader.FilledText(key);
  if (!name) {
    return;
  }
  file = ResolvePath(*name, context);
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    reader.Error(key, "names no file: " + file.string());
  }
}

void ReadHosts(TableReader& reader, std::vector<std::string>& hosts) {
  constexpr const char* kKey = "hosts";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  const toml::array* const names = node->as_array();
  if (names == nullptr || names->size() > kMaxHosts ||
      (!names->empty() && !names->is_homogeneous<std::string>())) {
    reader.Error(kKey, "must be a list of names such as [\"wall.example\"]");
    return;
  }
  for (const toml::node& name : *names) {
    hosts.push_back(*name.value<std::string>());
    if (hosts.back().empty() || hosts.back().find_first_of("/@ *") != std::string::npos ||
        (hosts.back().find(':') != std::string::npos && !os::IsAddress(hosts.back()))) {
      reader.diagnostics().Error(PositionOf(name),
                                 "must be the name of a host alone, without a scheme or a port");
    }
  }
}

// true, false, or a table with the details.
void ReadPreview(TableReader& reader, const Canvas& canvas, PreviewOptions& preview) {
  constexpr const char* kKey = "preview";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  if (node->is_boolean()) {
    preview.enabled = *node->value<bool>();
    return;
  }
  const toml::table* const table = node->as_table();
  if (table == nullptr) {
    reader.Error(kKey,
                 "must be true, false or a table such as { size = \"960x540\", rate = 12.5 }");
    return;
  }
  TableReader inner(*table, "\"preview\"", reader.diagnostics());
  if (const auto text = inner.Text("size")) {
    if (const auto size = ParseSize(*text);
        size && std::min(size->first, size->second) >= kSmallestPreview &&
        std::max(size->first, size->second) <= kLargestPreview) {
      std::tie(preview.width, preview.height) = *size;
    } else {
      inner.Error("size", "must be a width and a height in pixels from 64 to 3840: \"960x540\"");
    }
  }
  preview.frameRate = ReadFrameRate(inner, "rate");
  if (preview.frameRate && preview.frameRate->value() > canvas.frameRate.value()) {
    inner.Error("rate", "must not be above the frame rate of the canvas, " +
                            TextOf(canvas.frameRate) + " frames per second");
  }
  preview.bitRate = ReadBitRate(inner).value_or(preview.bitRate);
  inner.Finish();
}

}  // namespace

std::optional<Endpoint> ParseListenAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return {};
  }
  std::string host(text.substr(0, colon));
  const std::string_view digits = text.substr(colon + 1);
  Endpoint endpoint;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), endpoint.port);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    return {};
  }
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) {
    host = host.substr(1, host.size() - 2);
  }
  endpoint.host = host == "localhost" ? "127.0.0.1" : host;
  const bool isV6 = endpoint.host.find(':') != std::string::npos;
  // The system takes shorter forms, "127.1", for addresses, too.
  const auto dots = std::count(endpoint.host.begin(), endpoint.host.end(), '.');
  if (!os::IsAddress(endpoint.host) || isV6 != isBracketed || (!isV6 && dots != 3)) {
    return {};
  }
  return endpoint;
}

std::optional<std::pair<std::string, std::string>> HttpMistake(const Http& http) {
  if (http.certificate.empty() != http.key.empty()) {
    return std::pair(http.key.empty() ? "cert" : "key",
                     http.key.empty() ? "needs \"key\" beside it" : "needs \"cert\" beside it");
  }
  if (http.listen && http.tokenFile.empty() && !IsLoopback(http.listen->host)) {
    return std::pair("listen",
                     "is an address that other machines reach, which needs a \"token_file\"; "
                     "without one the wall can be driven at 127.0.0.1 only");
  }
  return {};
}

void ReadHttp(TableReader& reader, const FileContext& context, const Canvas& canvas, Http& http) {
  bool isReadable = true;
  if (const auto listen = reader.Text("listen")) {
    http.listen = ParseListenAddress(*listen);
    if (!http.listen) {
      isReadable = false;
      reader.Error("listen", kListenForm);
    }
  }
  ReadFileName(reader, "token_file", context, http.tokenFile);
  ReadFileName(reader, "cert", context, http.certificate);
  ReadFileName(reader, "key", context, http.key);
  ReadHosts(reader, http.hosts);
  ReadPreview(reader, canvas, http.preview);
  if (const auto mistake = HttpMistake(http); mistake && isReadable && context.complete) {
    reader.Error(mistake->first, mistake->second);
  }
  http.places = reader.AllPlaces();
  reader.Finish();
}

}  // namespace host::config
