// PinTable: buffer-full events of each output pin, and which of them are told.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace qorp::log {

// At most one warning for each pin in this time.
inline constexpr std::uint32_t kBufferFullPeriod = 10000;  // ms

// Without a lock: its owner guards it. Ticks are milliseconds that wrap.
class PinTable {
 public:
  // In bytewise order of the names.
  using Counts = std::map<std::string, std::int32_t, std::less<>>;

  // Starts a pin at 0, also one that is already there. Its first period begins now.
  void Register(std::string_view name, std::uint32_t now);
  // Counts an event. Answers for how many events a warning is due, this one included; 0 for none.
  // A pin that was never registered is not counted and always due.
  std::uint32_t Count(std::string_view name, std::uint32_t now);

  Counts GetCounts() const;

 private:
  struct Pin {
    std::uint32_t count = 0;
    std::uint32_t lastWarning = 0;  // ticks
    std::uint32_t repeats = 0;      // events since then
  };

  std::map<std::string, Pin, std::less<>> pins_;
};

}  // namespace qorp::log
