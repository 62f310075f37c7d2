// A thread whose end can be waited for, and calls that may never return with a limit for them.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "platform/os/mutex.h"
#include "platform/os/waitable.h"

namespace os {

// Runs a body on a thread of its own, from construction on. Signalled permanently once the body has
// returned. An exception that leaves the body ends the process.
//
// A wait that succeeds has joined the thread: none of its code runs any more, so that a library
// that holds the body may be unloaded. The destructor never waits for a running body: that thread
// continues by itself, and keeps its body alive.
class Thread final : public Waitable {
 public:
  // Low: runs when threads of normal priority leave time, as do all threads that it starts. No
  // privilege is needed.
  enum class Priority { kNormal, kLow };

  // name: for debuggers and process listings, cut to what the system allows; empty for none.
  // Throws std::system_error when the system refuses the thread.
  explicit Thread(std::function<void()> body, const std::string& name = {},
                  Priority priority = Priority::kNormal);
  ~Thread() override;

  // The system's number of the thread.
  std::uint32_t Id() const;

  // How many bodies run, in the whole process. At its end those of threads that were left to
  // themselves.
  static int Running();

 private:
  struct State;

  static void Run(const std::shared_ptr<State>& state);
  bool TryTake() override;
  Signal& GetSignal() override;

  std::shared_ptr<State> state_;  // shared with the running thread
  Mutex joinLock_;
  std::thread thread_ GUARDED_BY(joinLock_);  // not joinable once joined
};

// Makes the call on a thread of its own and gives its result; none when the call takes longer than
// the limit. Its thread is then detached: the call owns everything that it touches. What it throws
// is thrown here.
template <typename T>
std::optional<T> CallWithin(std::chrono::milliseconds limit, std::function<T()> call,
                            const std::string& name) {
  struct Outcome {
    std::optional<T> value;
    std::exception_ptr failure;
  };
  const auto outcome = std::make_shared<Outcome>();
  Thread thread(
      [outcome, call = std::move(call)] {
        try {
          outcome->value.emplace(call());
        } catch (...) {
          outcome->failure = std::current_exception();
        }
      },
      name);
  if (!thread.Wait(static_cast<std::uint32_t>(limit.count()))) {
    return std::nullopt;
  }
  if (outcome->failure) {
    std::rethrow_exception(outcome->failure);
  }
  return std::move(outcome->value);
}

}  // namespace os
