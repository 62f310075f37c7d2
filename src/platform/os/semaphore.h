// A counting semaphore.
#pragma once

#include <cstdint>

#include "platform/os/waitable.h"

namespace os {

// A count between 0 and maximum; signalled while it is above 0, each wait takes one. Released by
// any thread.
class Semaphore final : public Waitable {
 public:
  // Throws std::invalid_argument unless 0 <= initial <= maximum and 0 < maximum, std::system_error
  // when the system refuses it.
  explicit Semaphore(std::int32_t initial, std::int32_t maximum = 0x7FFFFFFF);

  // Adds count (at least 1). False, with nothing changed, when that would pass the maximum.
  bool Release(std::int32_t count = 1);

 private:
  bool TryTake() override;
  Signal& GetSignal() override { return signal_; }

  const std::int32_t maximum_;
  Signal signal_;       // set while count_ is above 0
  std::int32_t count_;  // guarded by the lock of signal_
};

}  // namespace os
