// Waiting for kernel objects, alone or for the first of several.
#pragma once

#include <cstdint>
#include <span>

namespace os {

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;    // as a time: for as long as it takes
inline constexpr std::uint32_t kWaitTimeout = 0x102;      // nothing was signalled in time
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;  // nothing that could be waited for

// Something that can be waited for: an event, a semaphore, the end of a thread. Any thread may wait
// for it, several at the same time; it must outlive every wait.
//
// The state that decides a wait (is there a token?) belongs to the derived class and is guarded by
// a lock of its own. The system only hears of it: Signal is raised while there is something to
// take. A waiter that was woken therefore tries to take, and goes on waiting when another was
// faster; taking from an object that is signalled already costs no call of the system.
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

    // Called alternately, under the lock of the state that they follow.
    void Raise() noexcept;
    void Lower() noexcept;
    int Descriptor() const { return descriptor_; }

   private:
    int descriptor_;
  };

  Waitable() = default;

 private:
  friend std::uint32_t WaitAny(std::span<Waitable* const> objects, std::uint32_t milliseconds);

  // Consumes what a wait consumes; false when the object is not signalled.
  virtual bool TryTake() = 0;
  virtual const Signal& GetSignal() const = 0;
};

// Waits for the first of several objects: the lowest index that is signalled, which alone is
// consumed. kWaitTimeout when none was signalled within the time, kWaitFailed for an empty list, a
// null in it or a failure of the system.
std::uint32_t WaitAny(std::span<Waitable* const> objects, std::uint32_t milliseconds);

}  // namespace os
