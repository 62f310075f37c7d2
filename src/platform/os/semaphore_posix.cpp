#include <stdexcept>

#include "platform/os/semaphore.h"

namespace os {

Semaphore::Semaphore(std::int32_t initial, std::int32_t maximum)
    : maximum_(maximum), count_(initial) {
  if (maximum < 1 || initial < 0 || initial > maximum) {
    throw std::invalid_argument("a semaphore counts from 0 to a maximum of at least 1");
  }
  if (initial > 0) {
    signal_.Raise();
  }
}

bool Semaphore::Release(std::int32_t count) {
  const std::lock_guard guard(lock_);
  if (count < 1 || count > maximum_ - count_) {
    return false;
  }
  if (count_ == 0) {
    signal_.Raise();
  }
  count_ += count;
  return true;
}

bool Semaphore::TryTake() {
  const std::lock_guard guard(lock_);
  if (count_ == 0) {
    return false;
  }
  if (--count_ == 0) {
    signal_.Lower();
  }
  return true;
}

}  // namespace os
