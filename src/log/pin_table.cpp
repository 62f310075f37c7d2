#include "log/pin_table.h"

#include <utility>

namespace qorp::log {

void PinTable::Register(std::string_view name, std::uint32_t now) {
  pins_.insert_or_assign(std::string(name), Pin{0, now, 0});
}

std::uint32_t PinTable::Count(std::string_view name, std::uint32_t now) {
  const auto found = pins_.find(name);
  if (found == pins_.end()) {
    return 1;
  }
  Pin& pin = found->second;
  ++pin.count;
  ++pin.repeats;
  if (now - pin.lastWarning < kBufferFullPeriod) {
    return 0;
  }
  pin.lastWarning = now;
  return std::exchange(pin.repeats, 0);
}

PinTable::Counts PinTable::GetCounts() const {
  Counts counts;
  for (const auto& [name, pin] : pins_) {
    counts.emplace_hint(counts.end(), name, static_cast<std::int32_t>(pin.count));
  }
  return counts;
}

}  // namespace qorp::log
