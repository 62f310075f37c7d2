#include "host/control/http/connections.h"

#include <algorithm>

namespace host::control::http {

Connections::Ticket Connections::Admit(const std::string& address) {
  entries_.remove_if([](const Ticket& entry) { return entry.use_count() == 1; });
  const auto ofOne = static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(),
                    [&](const Ticket& entry) { return entry->address == address; }));
  if ((ofOne >= mostOfOne_ && !MakeRoom(&address)) ||
      (entries_.size() >= most_ && !MakeRoom(nullptr))) {
    return nullptr;
  }
  entries_.push_back(std::make_shared<Entry>());
  entries_.back()->address = address;
  entries_.back()->SetIdle(true);
  return entries_.back();
}

bool Connections::MakeRoom(const std::string* address) {
  auto oldest = entries_.end();
  for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
    if ((*entry)->isIdle && (address == nullptr || (*entry)->address == *address) &&
        (oldest == entries_.end() || (*entry)->since < (*oldest)->since)) {
      oldest = entry;
    }
  }
  if (oldest == entries_.end()) {
    return false;
  }
  const Ticket closed = *oldest;
  entries_.erase(oldest);
  if (closed->close) {
    closed->close();
  }
  return true;
}

std::size_t Connections::count() const {
  return static_cast<std::size_t>(std::count_if(
      entries_.begin(), entries_.end(), [](const Ticket& entry) { return entry.use_count() > 1; }));
}

void Connections::CloseAll() {
  for (const Ticket& entry : entries_) {
    if (entry->close) {
      entry->close();
    }
  }
}

}  // namespace host::control::http
