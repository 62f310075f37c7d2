#include "platform/os/event.h"

namespace os {

Event::Event(Reset reset, bool initiallySet) : reset_(reset) {
  if (initiallySet) {
    Set();
  }
}

void Event::Set() {
  const std::lock_guard guard(lock_);
  if (!set_) {
    set_ = true;
    signal_.Raise();
  }
}

void Event::Clear() {
  const std::lock_guard guard(lock_);
  if (set_) {
    set_ = false;
    signal_.Lower();
  }
}

bool Event::TryTake() {
  const std::lock_guard guard(lock_);
  if (!set_) {
    return false;
  }
  if (reset_ == Reset::kAuto) {
    set_ = false;
    signal_.Lower();
  }
  return true;
}

}  // namespace os
