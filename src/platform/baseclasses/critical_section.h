// The platform's critical section and the guard that holds it.
#pragma once

#include "platform/os/mutex.h"

// A recursive lock. Lock and Unlock stand by their documented names.
class CAPABILITY("mutex") CCritSec {
 public:
  CCritSec() = default;
  CCritSec(const CCritSec&) = delete;
  CCritSec& operator=(const CCritSec&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  // For the checker, in a lambda that runs while the lock is held.
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  os::RecursiveMutex mutex_;
};

// Holds a critical section for its own lifetime.
class SCOPED_CAPABILITY CAutoLock {
 public:
  explicit CAutoLock(CCritSec* lock) ACQUIRE(lock) : lock_(lock) { lock_->Lock(); }
  ~CAutoLock() RELEASE() { lock_->Unlock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CCritSec* lock_;
};
