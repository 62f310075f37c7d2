// An event: a flag that threads wait for.
#pragma once

#include "platform/os/waitable.h"

namespace os {

// Set by any thread. An automatic event lets one wait pass and is then clear again (setting it
// twice before that still lets one pass); a manual one lets all pass until it is cleared.
class Event final : public Waitable {
 public:
  enum class Reset { kAuto, kManual };

  // Throws std::system_error when the system refuses it.
  explicit Event(Reset reset, bool initiallySet = false);

  void Set();
  void Clear();

 private:
  bool TryTake() override;
  Signal& GetSignal() override { return signal_; }

  const Reset reset_;
  Signal signal_;     // set while set_
  bool set_ = false;  // guarded by the lock of signal_
};

}  // namespace os
