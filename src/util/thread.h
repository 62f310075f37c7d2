// qorp::Thread: a thread that runs a stored callable.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/os/thread.h"

namespace qorp {

// Owned, made and destroyed by one thread. The destructor does not wait for a running body: the
// owner makes it return and waits for its end, on Handle(), before destroying the Thread.
class Thread {
 public:
  // Starts at once. An empty body ends the process with std::bad_function_call on the new thread.
  // Throws std::system_error when the system refuses the thread. name: for debuggers.
  explicit Thread(std::function<void()> body, const std::string& name = {})
      : thread_(std::move(body), name) {}
  virtual ~Thread() = default;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Signalled permanently once the body has returned.
  os::Waitable& Handle() { return thread_; }
  // The system's thread id.
  std::uint32_t Id() const { return thread_.Id(); }

 private:
  os::Thread thread_;
};

}  // namespace qorp
