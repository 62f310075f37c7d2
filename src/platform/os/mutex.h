// Mutexes, and the attributes by which the compiler checks who holds them.
//
// A member says GUARDED_BY(lock_), an operation that is called with a lock held REQUIRES(lock_):
// clang reports every access without the lock (`./dev lint`). Lambdas are checked as functions of
// their own: one that runs under a lock begins with AssertHeld. Other compilers ignore the
// attributes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TAVREL_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define TAVREL_THREAD_ATTRIBUTE(attribute)
#endif

// Of a class: it is a lock, or holds one during its lifetime.
#define CAPABILITY(kind) TAVREL_THREAD_ATTRIBUTE(capability(kind))
#define SCOPED_CAPABILITY TAVREL_THREAD_ATTRIBUTE(scoped_lockable)
// Of a member: the lock under which it is read and written.
#define GUARDED_BY(lock) TAVREL_THREAD_ATTRIBUTE(guarded_by(lock))
// Of an operation: its callers hold the locks.
#define REQUIRES(...) TAVREL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
// Of an operation: it takes the locks, releases them, returns one.
#define ACQUIRE(...) TAVREL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TAVREL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) TAVREL_THREAD_ATTRIBUTE(lock_returned(lock))
// Of an operation: says that the lock is held where the compiler does not see it.
#define ASSERT_CAPABILITY(lock) TAVREL_THREAD_ATTRIBUTE(assert_capability(lock))
// Of an operation that the compiler cannot follow; a comment says why.
#define NO_THREAD_SAFETY_ANALYSIS TAVREL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace os {

// Any thread; not recursive.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  // For the checker, in a lambda that runs while the lock is held.
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  friend class ConditionVariable;

  std::mutex mutex_;
};

// May be taken again by the thread that holds it.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  // As in Mutex.
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  std::recursive_mutex mutex_;
};

// A spin-then-block mutex for sections of a few instructions: where the holder is about to release
// it, suspending and waking a thread cost many times the wait. Any thread; not recursive.
class CAPABILITY("mutex") SpinThenBlockMutex {
 public:
  SpinThenBlockMutex() = default;
  SpinThenBlockMutex(const SpinThenBlockMutex&) = delete;
  SpinThenBlockMutex& operator=(const SpinThenBlockMutex&) = delete;

  void lock() ACQUIRE() {
    for (int spin = 0; spin < kSpins; ++spin) {
      if (mutex_.try_lock()) {
        return;
      }
      Relax();
    }
    mutex_.lock();
  }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  static constexpr int kSpins = 50;

  static void Relax() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }

  std::mutex mutex_;
};

// Holds one of these during its lifetime.
template <typename Lock>
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Lock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~MutexLock() RELEASE() { lock_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Lock& lock_;
};

// Waited for under a Mutex, which a wait releases and holds again when it returns. Wakeups may be
// spurious: the caller checks its condition in a loop.
class ConditionVariable {
 public:
  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock held(mutex.mutex_, std::adopt_lock);
    condition_.wait(held);
    held.release();
  }
  // False at the deadline.
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
    std::unique_lock held(mutex.mutex_, std::adopt_lock);
    const bool inTime = condition_.wait_until(held, deadline) == std::cv_status::no_timeout;
    held.release();
    return inTime;
  }

 private:
  std::condition_variable condition_;
};

}  // namespace os
