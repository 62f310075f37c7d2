#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/os/service.h"

namespace os {
namespace {

// What a signal handler may touch: lock-free atomics and write. The descriptor is never closed: a
// handler that runs on another thread may still write to it.
std::atomic<int> requests{0};
std::atomic<int> wakeUp{-1};
std::atomic<bool> reload{false};
struct sigaction formerInterrupt;
struct sigaction formerTerminate;
struct sigaction formerPipe;
struct sigaction formerHangUp;

void HandleSignal(int signal) {
  const int savedErrno = errno;
  if (requests.fetch_add(1) > 0) {
    _exit(128 + signal);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t put = write(wakeUp.load(), &one, sizeof(one));
  errno = savedErrno;
}

void HandleReload(int) {
  reload = true;
}

}  // namespace

StopSignals::StopSignals(bool reloads) : reloads_(reloads) {
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
  // A reader of our lines, or of an output, may go away: no reason to end the program.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &formerPipe);
  if (reloads_) {
    reload = false;
    action.sa_handler = &HandleReload;
    sigaction(SIGHUP, &action, &formerHangUp);
  }
}

StopSignals::~StopSignals() {
  sigaction(SIGINT, &formerInterrupt, nullptr);
  sigaction(SIGTERM, &formerTerminate, nullptr);
  sigaction(SIGPIPE, &formerPipe, nullptr);
  if (reloads_) {
    sigaction(SIGHUP, &formerHangUp, nullptr);
  }
}

bool StopSignals::TakeReload() {
  return reload.exchange(false);
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

ServiceNotifier ServiceNotifier::FromEnvironment() {
  // NOLINTBEGIN(concurrency-mt-unsafe): nobody changes the environment
  const char* const address = std::getenv("NOTIFY_SOCKET");
  const char* const period = std::getenv("WATCHDOG_USEC");
  const char* const process = std::getenv("WATCHDOG_PID");
  // NOLINTEND(concurrency-mt-unsafe)
  std::optional<std::chrono::microseconds> watchdog;
  // The variables may be inherited from a parent that is the one to be watched.
  const bool isMeant = process == nullptr || std::strtol(process, nullptr, 10) == ::getpid();
  if (period != nullptr && isMeant) {
    const long long value = std::strtoll(period, nullptr, 10);
    if (value > 0) {
      watchdog = std::chrono::microseconds(value);
    }
  }
  return {address != nullptr ? address : "", watchdog};
}

ServiceNotifier::ServiceNotifier(const std::string& address,
                                 std::optional<std::chrono::microseconds> watchdog)
    : address_(address) {
  if (address.empty() || (address[0] != '/' && address[0] != '@') ||
      address.size() >= sizeof(sockaddr_un::sun_path)) {
    return;
  }
  descriptor_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  watchdog_ = watchdog;
}

ServiceNotifier::ServiceNotifier(ServiceNotifier&& other) noexcept
    : address_(std::move(other.address_)),
      watchdog_(other.watchdog_),
      descriptor_(std::exchange(other.descriptor_, -1)) {}

ServiceNotifier::~ServiceNotifier() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

bool ServiceNotifier::Send(std::string_view message) const {
  if (!active()) {
    return false;
  }
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::memcpy(to.sun_path, address_.data(), address_.size());
  if (to.sun_path[0] == '@') {
    to.sun_path[0] = '\0';  // an abstract name
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  return ::sendto(descriptor_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&to),
                  length) == static_cast<ssize_t>(message.size());
}

}  // namespace os
