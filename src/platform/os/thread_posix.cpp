#include <atomic>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/os/thread.h"

namespace os {
namespace {

// The longest name that the system takes.
constexpr std::size_t kMaxName = 15;

// Steps of niceness of a thread of low priority: a third of the weight of a normal one.
constexpr int kLowPriority = 5;

std::atomic<int> running{0};

// The system's niceness is that of one thread. Threads that it starts inherit it.
void LowerPriority() {
  const auto thread = static_cast<id_t>(::gettid());
  ::setpriority(PRIO_PROCESS, thread, ::getpriority(PRIO_PROCESS, thread) + kLowPriority);
}

}  // namespace

struct Thread::State {
  std::function<void()> body;
  std::string name;
  Priority priority = Priority::kNormal;
  std::atomic<std::uint32_t> id{0};  // 0 until the thread runs
  Signal ended;                      // set once, by the ending thread
};

Thread::Thread(std::function<void()> body, const std::string& name, Priority priority)
    : state_(std::make_shared<State>()) {
  state_->body = std::move(body);
  state_->name = name.substr(0, kMaxName);
  state_->priority = priority;
  ++running;
  try {
    thread_ = std::thread([state = state_] { Run(state); });
  } catch (...) {
    --running;
    throw;
  }
}

void Thread::Run(const std::shared_ptr<State>& state) {
  state->id = static_cast<std::uint32_t>(::gettid());
  state->id.notify_all();
  if (!state->name.empty()) {
    ::pthread_setname_np(::pthread_self(), state->name.c_str());
  }
  if (state->priority == Priority::kLow) {
    LowerPriority();
  }
  state->body();
  --running;
  const os::MutexLock guard(state->ended.Lock());
  state->ended.Set(true);
}

Thread::~Thread() {
  if (!TryTake()) {
    thread_.detach();
  }
}

int Thread::Running() {
  return running;
}

std::uint32_t Thread::Id() const {
  state_->id.wait(0);
  return state_->id;
}

bool Thread::TryTake() {
  if (!state_->ended.MaySucceed()) {
    return false;
  }
  // The thread has only its last steps to do.
  const os::MutexLock guard(joinLock_);
  if (thread_.joinable()) {
    thread_.join();
  }
  return true;
}

Waitable::Signal& Thread::GetSignal() {
  return state_->ended;
}

}  // namespace os
