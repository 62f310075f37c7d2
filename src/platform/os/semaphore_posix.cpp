#include <stdexcept>

#include "platform/os/semaphore.h"

namespace os {

Semaphore::Semaphore(std::int32_t initial, std::int32_t maximum)
    : maximum_(maximum), count_(initial) {
  if (maximum < 1 || initial < 0 || initial > maximum) {
    throw std::invalid_argument("a semaphore counts from 0 to a maximum of at least 1");
  }
  signal_.Set(initial > 0);
}

bool Semaphore::Release(std::int32_t count) {
  const std::lock_guard guard(signal_.Lock());
  if (count < 1 || count > maximum_ - count_) {
    return false;
  }
  count_ += count;
  signal_.Set(true);
  return true;
}

bool Semaphore::TryTake() {
  if (!signal_.MaySucceed()) {
    return false;
  }
  const std::lock_guard guard(signal_.Lock());
  if (count_ == 0) {
    return false;
  }
  --count_;
  signal_.Set(count_ > 0);
  return true;
}

}  // namespace os
