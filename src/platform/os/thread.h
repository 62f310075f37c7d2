// Threads and what they wait for: kernel objects (Event, Semaphore, the end of a Thread), alone or
// the first of several; calls that may never return, with a limit for them.
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

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;    // as a time: for as long as it takes
inline constexpr std::uint32_t kWaitTimeout = 0x102;      // nothing was signalled in time
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;  // nothing that could be waited for

// Something that can be waited for: an event, a semaphore, the end of a thread. Any thread may wait
// for it, several at the same time; it must outlive every wait.
//
// The state that decides a wait (is there a token?) belongs to the derived class and is guarded by
// the lock of its Signal. The system is involved only while somebody sleeps: Signal is raised while
// there is something to take and a waiter to be woken. A waiter that was woken tries to take, and
// continues to wait when another was faster. Setting and taking without a sleeper costs no call of
// the system.
class Waitable {
 public:
  virtual ~Waitable() = default;
  Waitable(const Waitable&) = delete;
  Waitable& operator=(const Waitable&) = delete;

  // True when the object was signalled within the time, and then consumed. With 0 it only looks.
  bool Wait(std::uint32_t milliseconds);

 protected:
  // What the system's wait looks at. Throws std::system_error when the system refuses it.
  class Signal {
   public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    // Guards the state that the signal follows, too.
    SpinThenBlockMutex& Lock() RETURN_CAPABILITY(lock_) { return lock_; }
    // Whether there is something to take.
    void Set(bool signalled) noexcept REQUIRES(lock_);
    // Without the lock; enough to say no, not enough to take.
    bool MaySucceed() const { return signalled_.load(std::memory_order_acquire); }

    // Around a sleep that looks at the descriptor; take the lock.
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

  // Adds count (at least 1). False, with nothing changed, when that would pass the maximum.
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
