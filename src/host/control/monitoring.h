// Monitoring of a wall as a service: figures in the text format of Prometheus, version 0.0.4
// (MetricsText), and whether the wall is alive and ready (Monitoring).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace host::control {

// One family after the other, each with all its samples:
//
//   # HELP tavrel_frames_total Frames that were composed.
//   # TYPE tavrel_frames_total counter
//   tavrel_frames_total 1234
//
// One thread.
class MetricsText {
 public:
  static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

  using Labels = std::initializer_list<std::pair<const char*, std::string_view>>;

  // name: of the family, by Prometheus's conventions; those of counters end in "_total".
  void Counter(std::string name, const char* help) { Begin(std::move(name), "counter", help); }
  void Gauge(std::string name, const char* help) { Begin(std::move(name), "gauge", help); }
  // A sample of the family that was begun last. Values of labels may be any bytes; what is not
  // UTF-8 is replaced.
  void Add(std::uint64_t value, Labels labels = {}) { AddLine("", std::to_string(value), labels); }
  void Add(double value, Labels labels = {});
  // bounds: upper bounds of all buckets but the last, seconds, ascending; counts: of each bucket
  // (not cumulative), one more than bounds; sum: of the observed values, seconds.
  void Histogram(std::string name, const char* help, std::span<const double> bounds,
                 std::span<const std::uint64_t> counts, double sum);

  const std::string& text() const { return text_; }

 private:
  void Begin(std::string name, const char* type, const char* help);
  void AddLine(const char* suffix, const std::string& value, Labels labels);

  std::string name_;
  std::string text_;
};

// Called on the server's thread; each returns at once. An empty function reports nothing.
struct Monitoring {
  std::function<void(MetricsText&)> metrics;
  // Why no frames are composed, as a sentence; empty while they are.
  std::function<std::string()> whyNotAlive;
  // Why no output delivers the wall's frames; empty while one may.
  std::function<std::string()> whyNotReady;
};

}  // namespace host::control
