#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/os/service_notifier.h"

namespace os {

ServiceNotifier ServiceNotifier::FromEnvironment() {
  // NOLINTBEGIN(concurrency-mt-unsafe): nobody changes the environment
  const char* const address = std::getenv("NOTIFY_SOCKET");
  const char* const period = std::getenv("WATCHDOG_USEC");
  const char* const process = std::getenv("WATCHDOG_PID");
  // NOLINTEND(concurrency-mt-unsafe)
  std::optional<std::chrono::microseconds> watchdog;
  // The variables may have come down from a parent that is the one to be watched.
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
    to.sun_path[0] = '\0';  // a name outside of the file system
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  return ::sendto(descriptor_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&to),
                  length) == static_cast<ssize_t>(message.size());
}

}  // namespace os
