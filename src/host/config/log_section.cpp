#include "host/config/sections.h"
#include "host/config/value_text.h"

namespace host::config {

namespace {

std::optional<std::int32_t> ReadSize(TableReader& reader, const char* key) {
  const toml::node* const node = reader.Find(key);
  if (node == nullptr) {
    return {};
  }
  const auto size = node->is_integer() ? ParseByteSize(std::to_string(*node->value<std::int64_t>()))
                    : node->is_string() ? ParseByteSize(*node->value<std::string>())
                                        : std::nullopt;
  if (!size) {
    reader.Error(key, kByteSizeForm);
  }
  return size;
}

// Empty stays empty: it takes back what a default gives.
std::optional<std::filesystem::path> ReadFile(TableReader& reader, const char* key,
                                              const FileContext& context) {
  const auto path = reader.Text(key);
  if (!path) {
    return {};
  }
  return path->empty() ? std::filesystem::path() : ResolvePath(*path, context);
}

}  // namespace

void ReadLog(TableReader& reader, const FileContext& context, LogOptions& log) {
  if (const auto level = reader.Integer("level", 0, kHighestLogLevel)) {
    log.level = static_cast<int>(*level);
  }
  log.file = ReadFile(reader, "file", context);
  log.size = ReadSize(reader, "size");
  if (const auto syslog = reader.Text("syslog")) {
    log.syslog = ParseEndpoint(*syslog);
    if (!log.syslog) {
      reader.Error("syslog", kEndpointForm);
    }
  }
  log.perfFile = ReadFile(reader, "perf_file", context);
  log.perfPeriod = reader.Duration("perf_period", kMinPerfPeriod, kMaxPerfPeriod);
  if (log.file && log.file == log.perfFile && !log.file->empty()) {
    reader.Error("perf_file", "is the file of the messages already; give it a file of its own");
  }
  log.places = reader.AllPlaces();
  reader.Finish();
}

}  // namespace host::config
