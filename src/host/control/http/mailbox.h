// Mailbox: brings work to the server's thread.
#pragma once

#include <functional>
#include <utility>

#include "platform/os/mutex.h"

namespace host::control::http {

// Shared by the server and the callbacks that other threads keep, where it outlives the server.
class Mailbox {
 public:
  using Work = std::function<void()>;

  // post: queues work for the server's thread and returns; called under the lock.
  explicit Mailbox(std::function<void(Work)> post) : post_(std::move(post)) {}

  // Any thread. Does nothing once it is closed.
  void Post(Work work) {
    const os::MutexLock guard(lock_);
    if (post_) {
      post_(std::move(work));
    }
  }
  void Close() {
    const os::MutexLock guard(lock_);
    post_ = nullptr;
  }

 private:
  os::Mutex lock_;
  std::function<void(Work)> post_ GUARDED_BY(lock_);
};

}  // namespace host::control::http
