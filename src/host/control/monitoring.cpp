#include "host/control/monitoring.h"

#include <array>
#include <charconv>
#include <cmath>

#include <nlohmann/json.hpp>

#include "host/control/event_feed.h"

namespace host::control {

namespace {

std::string NumberText(double value) {
  if (!std::isfinite(value)) {
    return std::isnan(value) ? "NaN" : value > 0 ? "+Inf" : "-Inf";
  }
  std::array<char, 32> text{};
  return {
      text.data(),
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::general).ptr};
}

// Bytes that are not UTF-8 are replaced as in the wall's JSON.
std::string ValidUtf8(std::string_view text) {
  return nlohmann::json::parse(OneLine(nlohmann::ordered_json(text))).get<std::string>();
}

std::string Escaped(std::string_view value) {
  std::string escaped;
  for (const char c : ValidUtf8(value)) {
    if (c == '\\' || c == '"') {
      escaped += '\\';
    }
    escaped += c == '\n' ? "\\n" : std::string(1, c);
  }
  return escaped;
}

}  // namespace

void MetricsText::Begin(std::string name, const char* type, const char* help) {
  name_ = std::move(name);
  text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
}

void MetricsText::Add(double value, Labels labels) {
  AddLine("", NumberText(value), labels);
}

void MetricsText::AddLine(const char* suffix, const std::string& value, Labels labels) {
  text_ += name_ + suffix;
  const char* separator = "{";
  for (const auto& [label, content] : labels) {
    text_ += std::string(separator) + label + "=\"" + Escaped(content) + "\"";
    separator = ",";
  }
  text_ += (labels.size() > 0 ? "} " : " ") + value + "\n";
}

void MetricsText::Histogram(std::string name, const char* help, std::span<const double> bounds,
                            std::span<const std::uint64_t> counts, double sum) {
  Begin(std::move(name), "histogram", help);
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    total += counts[i];
    const std::string bound = i < bounds.size() ? NumberText(bounds[i]) : "+Inf";
    AddLine("_bucket", std::to_string(total), {{"le", bound}});
  }
  AddLine("_sum", NumberText(sum), {});
  AddLine("_count", std::to_string(total), {});
}

}  // namespace host::control
