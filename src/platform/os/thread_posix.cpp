#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <new>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/os/thread.h"

namespace os {
namespace {

using Clock = std::chrono::steady_clock;

timespec ToTimespec(Clock::duration time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(time - seconds);
  return {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
}

}  // namespace

Waitable::Signal::Signal() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot create a kernel object");
  }
}

Waitable::Signal::~Signal() {
  ::close(descriptor_);
}

void Waitable::Signal::Set(bool signalled) noexcept {
  signalled_.store(signalled, std::memory_order_release);
  Follow();
}

void Waitable::Signal::BeginWait() noexcept {
  const os::MutexLock guard(lock_);
  ++waiters_;
  Follow();
}

void Waitable::Signal::EndWait() noexcept {
  const os::MutexLock guard(lock_);
  --waiters_;
  Follow();
}

// The calls cannot fail: the counter is 0 or 1, and the descriptor is open.
void Waitable::Signal::Follow() noexcept {
  const bool wanted = signalled_.load(std::memory_order_relaxed) && waiters_ > 0;
  if (wanted && !raised_) {
    [[maybe_unused]] const int result = ::eventfd_write(descriptor_, 1);
  } else if (!wanted && raised_) {
    eventfd_t count = 0;
    [[maybe_unused]] const int result = ::eventfd_read(descriptor_, &count);
  }
  raised_ = wanted;
}

bool Waitable::Wait(std::uint32_t milliseconds) {
  Waitable* const self = this;
  return WaitAny(std::span(&self, 1), milliseconds) == 0;
}

// One thread's sleep on a list of objects. Lists of the usual lengths need no allocation.
class Waitable::Sleep {
 public:
  explicit Sleep(std::span<Waitable* const> objects) : objects_(objects) {
    if (objects.size() > few_.size()) {
      many_.resize(objects.size());
    }
    pollfd* entry = List();
    for (Waitable* const object : objects) {
      object->GetSignal().BeginWait();
      *entry++ = {object->GetSignal().Descriptor(), POLLIN, 0};
    }
  }
  ~Sleep() {
    for (Waitable* const object : objects_) {
      object->GetSignal().EndWait();
    }
  }
  Sleep(const Sleep&) = delete;
  Sleep& operator=(const Sleep&) = delete;

  // As ppoll: the number of objects that may succeed, 0 after the time (null: no limit), -1 with
  // errno.
  int Until(const timespec* time) { return ::ppoll(List(), objects_.size(), time, nullptr); }

 private:
  pollfd* List() { return many_.empty() ? few_.data() : many_.data(); }

  const std::span<Waitable* const> objects_;
  std::array<pollfd, 16> few_{};
  std::vector<pollfd> many_;
};

std::uint32_t WaitAny(std::span<Waitable* const> objects, std::uint32_t milliseconds) {
  if (objects.empty() || std::find(objects.begin(), objects.end(), nullptr) != objects.end()) {
    return kWaitFailed;
  }
  const auto tryAll = [&]() -> std::uint32_t {
    for (std::size_t i = 0; i < objects.size(); ++i) {
      if (objects[i]->TryTake()) {
        return static_cast<std::uint32_t>(i);
      }
    }
    return kWaitTimeout;
  };
  if (const std::uint32_t taken = tryAll(); taken != kWaitTimeout || milliseconds == 0) {
    return taken;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
  try {
    Waitable::Sleep sleep(objects);
    while (true) {
      timespec left{};
      if (milliseconds != kInfinite) {
        left = ToTimespec(std::max(deadline - Clock::now(), Clock::duration::zero()));
      }
      const int ready = sleep.Until(milliseconds == kInfinite ? nullptr : &left);
      if (ready < 0 && errno != EINTR) {
        return kWaitFailed;
      }
      // Another waiter may have been faster: then wait for the time that is left.
      if (const std::uint32_t taken = tryAll(); taken != kWaitTimeout || ready == 0) {
        return taken;
      }
    }
  } catch (const std::bad_alloc&) {
    return kWaitFailed;
  }
}

Event::Event(Reset reset, bool initiallySet) : reset_(reset) {
  if (initiallySet) {
    Set();
  }
}

void Event::Set() {
  const os::MutexLock guard(signal_.Lock());
  set_ = true;
  signal_.Set(true);
}

void Event::Clear() {
  const os::MutexLock guard(signal_.Lock());
  set_ = false;
  signal_.Set(false);
}

bool Event::TryTake() {
  if (!signal_.MaySucceed()) {
    return false;
  }
  const os::MutexLock guard(signal_.Lock());
  const bool taken = set_;
  if (taken && reset_ == Reset::kAuto) {
    set_ = false;
    signal_.Set(false);
  }
  return taken;
}

Semaphore::Semaphore(std::int32_t initial, std::int32_t maximum)
    : maximum_(maximum), count_(initial) {
  if (maximum < 1 || initial < 0 || initial > maximum) {
    throw std::invalid_argument("a semaphore counts from 0 to a maximum of at least 1");
  }
  signal_.Set(initial > 0);
}

bool Semaphore::Release(std::int32_t count) {
  const os::MutexLock guard(signal_.Lock());
  if (count < 1 || count > maximum_ - count_) {
    return false;
  }
  count_ += count;
  signal_.Set(true);
  return true;
}

bool Semaphore::TryTake() {
  if (!signal_.MaySucceed()) {
    return false;
  }
  const os::MutexLock guard(signal_.Lock());
  if (count_ == 0) {
    return false;
  }
  --count_;
  signal_.Set(count_ > 0);
  return true;
}

namespace {

// The longest name that the system takes.
constexpr std::size_t kMaxName = 15;

// Steps of niceness of a thread of low priority: a third of the weight of a normal one.
constexpr int kLowPriority = 5;

std::atomic<int> running{0};

// The system keeps a niceness for each thread; threads that it starts inherit it.
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
  // The body has returned, so that joining hardly waits.
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
