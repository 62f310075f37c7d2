#include "platform/os/event.h"

namespace os {

Event::Event(Reset reset, bool initiallySet) : reset_(reset) {
  if (initiallySet) {
    Set();
  }
}

void Event::Set() {
  const std::lock_guard guard(signal_.Lock());
  set_ = true;
  signal_.Set(true);
}

void Event::Clear() {
  const std::lock_guard guard(signal_.Lock());
  set_ = false;
  signal_.Set(false);
}

bool Event::TryTake() {
  if (!signal_.MaySucceed()) {
    return false;
  }
  const std::lock_guard guard(signal_.Lock());
  const bool taken = set_;
  if (taken && reset_ == Reset::kAuto) {
    set_ = false;
    signal_.Set(false);
  }
  return taken;
}

}  // namespace os
