// The platform's critical section and the guard that holds it.
#pragma once

#include <mutex>

// A recursive lock. Lock and Unlock stand by their documented names.
class CCritSec {
 public:
  CCritSec() = default;
  CCritSec(const CCritSec&) = delete;
  CCritSec& operator=(const CCritSec&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a critical section for its own lifetime.
class CAutoLock {
 public:
  explicit CAutoLock(CCritSec* lock) : lock_(lock) { lock_->Lock(); }
  ~CAutoLock() { lock_->Unlock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CCritSec* lock_;
};
