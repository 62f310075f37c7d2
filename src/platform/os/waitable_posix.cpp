#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <new>
#include <system_error>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/os/waitable.h"

namespace os {
namespace {

using Clock = std::chrono::steady_clock;

// Lists of the usual lengths need no memory of their own.
class PollList {
 public:
  explicit PollList(std::size_t count) : count_(count) {
    if (count > few_.size()) {
      many_.resize(count);
    }
  }
  pollfd* Data() { return many_.empty() ? few_.data() : many_.data(); }
  std::size_t Count() const { return count_; }

 private:
  std::size_t count_;
  std::array<pollfd, 16> few_{};
  std::vector<pollfd> many_;
};

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

// Neither can fail: the counter goes between 0 and 1, and the descriptor is open.
void Waitable::Signal::Raise() noexcept {
  [[maybe_unused]] const int result = ::eventfd_write(descriptor_, 1);
}

void Waitable::Signal::Lower() noexcept {
  eventfd_t count = 0;
  [[maybe_unused]] const int result = ::eventfd_read(descriptor_, &count);
}

bool Waitable::Wait(std::uint32_t milliseconds) {
  Waitable* const self = this;
  return WaitAny(std::span(&self, 1), milliseconds) == 0;
}

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
    PollList list(objects.size());
    for (std::size_t i = 0; i < objects.size(); ++i) {
      list.Data()[i] = {objects[i]->GetSignal().Descriptor(), POLLIN, 0};
    }
    while (true) {
      timespec left{};
      if (milliseconds != kInfinite) {
        left = ToTimespec(std::max(deadline - Clock::now(), Clock::duration::zero()));
      }
      const int ready =
          ::ppoll(list.Data(), list.Count(), milliseconds == kInfinite ? nullptr : &left, nullptr);
      if (ready < 0 && errno != EINTR) {
        return kWaitFailed;
      }
      // Another waiter may have been faster: then go on with the time that is left.
      if (const std::uint32_t taken = tryAll(); taken != kWaitTimeout || ready == 0) {
        return taken;
      }
    }
  } catch (const std::bad_alloc&) {
    return kWaitFailed;
  }
}

}  // namespace os
