#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/os/stop_signals.h"

namespace os {
namespace {

// What a signal handler may touch: lock-free atomics and write. The descriptor, once open, stays:
// a handler that has begun on another thread may write to it later than everybody expects.
std::atomic<int> requests{0};
std::atomic<int> wakeUp{-1};
struct sigaction formerInterrupt;
struct sigaction formerTerminate;
struct sigaction formerPipe;

void HandleSignal(int signal) {
  const int savedErrno = errno;
  if (requests.fetch_add(1) > 0) {
    _exit(128 + signal);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t put = write(wakeUp.load(), &one, sizeof(one));
  errno = savedErrno;
}

}  // namespace

StopSignals::StopSignals() {
  if (wakeUp < 0) {
    wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUp < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
    }
  }
  std::uint64_t former = 0;
  [[maybe_unused]] const ssize_t taken = read(wakeUp, &former, sizeof(former));
  requests = 0;
  struct sigaction action {};
  action.sa_handler = &HandleSignal;
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, &formerInterrupt);
  sigaction(SIGTERM, &action, &formerTerminate);
  // Whoever reads our lines, or an output, may go away: no reason to end the program.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &formerPipe);
}

StopSignals::~StopSignals() {
  sigaction(SIGINT, &formerInterrupt, nullptr);
  sigaction(SIGTERM, &formerTerminate, nullptr);
  sigaction(SIGPIPE, &formerPipe, nullptr);
}

bool StopSignals::Requested() const {
  return requests.load() > 0;
}

bool StopSignals::WaitFor(std::chrono::milliseconds limit) const {
  if (!Requested()) {
    pollfd waiting{wakeUp.load(), POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(limit.count()));
  }
  return Requested();
}

}  // namespace os
