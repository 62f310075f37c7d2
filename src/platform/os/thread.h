// Threads, and kernel objects to wait for (Event, Semaphore, the end of a Thread): one, or the
// first of several. Calls with a time limit.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>

#include "platform/os/mutex.h"

namespace os {

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;    // as a time: no limit
inline constexpr std::uint32_t kWaitTimeout = 0x102;      // nothing was signalled in time
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;  // the objects cannot be waited for

// Something that can be waited for: an event, a semaphore, the end of a thread. Any thread may wait
// for it, several at the same time; it must outlive every wait.
//
// The state that decides a wait (is there a token?) belongs to the derived class and is guarded by
// the lock of its Signal. The system is called only while a thread sleeps: the descriptor of the
// Signal is readable while there is a token and a waiter. A waiter that wakes tries to take the
// token, and sleeps again when another thread was faster. Without a sleeper, setting and taking
// cost no system call.
class Waitable {
 public:
  virtual ~Waitable() = default;
  Waitable(const Waitable&) = delete;
  Waitable& operator=(const Waitable&) = delete;

  // True when the object was signalled within the time; the signal is then consumed. 0: does not
  // wait.
  bool Wait(std::uint32_t milliseconds);

 protected:
  // The descriptor on which threads sleep. Throws std::system_error when the system refuses it.
  class Signal {
   public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    // Also guards the derived class's state that decides whether the signal is set.
    SpinThenBlockMutex& Lock() RETURN_CAPABILITY(lock_) { return lock_; }
    // Whether there is something to take.
    void Set(bool signalled) noexcept REQUIRES(lock_);
    // Without the lock: false is final, true has to be confirmed under the lock.
    bool MaySucceed() const { return signalled_.load(std::memory_order_acquire); }

    // Called before and after a sleep on the descriptor; both take the lock.
    void BeginWait() noexcept;
    void EndWait() noexcept;
    int Descriptor() const { return descriptor_; }

   private:
    void Follow() noexcept REQUIRES(lock_);

    const int descriptor_;
    SpinThenBlockMutex lock_;
    std::atomic<bool> signalled_{false};     // written under lock_
    bool raised_ GUARDED_BY(lock_) = false;  // the descriptor is readable
    int waiters_ GUARDED_BY(lock_) = 0;
  };

  Waitable() = default;

 private:
  class Sleep;
  friend std::uint32_t WaitAny(std::span<Waitable* const> objects, std::uint32_t milliseconds);

  // Consumes what a wait consumes; false when the object is not signalled.
  virtual bool TryTake() = 0;
  virtual Signal& GetSignal() = 0;
};

// Waits for the first of several objects: the lowest index that is signalled, which alone is
// consumed. kWaitTimeout when none was signalled within the time, kWaitFailed for an empty list, a
// null in it or a failure of the system.
std::uint32_t WaitAny(std::span<Waitable* const> objects, std::uint32_t milliseconds);

// Set by any thread. An auto-reset event releases one wait and is then clear again (setting it
// twice before that still releases one); a manual-reset event releases all until it is cleared.
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
  Signal signal_;  // set while set_
  bool set_ GUARDED_BY(signal_.Lock()) = false;
};

// A count between 0 and maximum; signalled while it is above 0, each wait takes one. Released by
// any thread.
class Semaphore final : public Waitable {
 public:
  // Throws std::invalid_argument unless 0 <= initial <= maximum and 0 < maximum, std::system_error
  // when the system refuses it.
  explicit Semaphore(std::int32_t initial, std::int32_t maximum = 0x7FFFFFFF);

  // Adds count (at least 1). False, with nothing changed, when that would exceed the maximum.
  bool Release(std::int32_t count = 1);

 private:
  bool TryTake() override;
  Signal& GetSignal() override { return signal_; }

  const std::int32_t maximum_;
  Signal signal_;  // set while count_ is above 0
  std::int32_t count_ GUARDED_BY(signal_.Lock());
};

// Runs a body on a thread of its own, from construction on. Signalled permanently once the body has
// returned. An exception that leaves the body ends the process.
//
// A wait that succeeds has joined the thread: none of its code runs any more, so that a library
// that holds the body may be unloaded. The destructor never waits for a running body: that thread
// continues by itself, and keeps its body alive.
class Thread final : public Waitable {
 public:
  // Low: a smaller share of a busy processor, inherited by all threads that it starts. No privilege
  // is needed.
  enum class Priority { kNormal, kLow };

  // name: for debuggers and process listings, cut to what the system allows; empty for none.
  // Throws std::system_error when the system refuses the thread.
  explicit Thread(std::function<void()> body, const std::string& name = {},
                  Priority priority = Priority::kNormal);
  ~Thread() override;

  // The system's thread id.
  std::uint32_t Id() const;

  // Number of bodies that run in the whole process; at its end, those of detached threads.
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

// Makes the call on a thread of its own and returns its result; none when it takes longer than the
// limit. The thread is then detached, so the call has to own everything that it touches. Its
// exceptions are rethrown here.
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
