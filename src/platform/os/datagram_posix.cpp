#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include "platform/os/datagram.h"
#include "platform/os/host_addresses_posix.h"

namespace os {
namespace {

[[noreturn]] void ThrowCannotReach(const std::string& host, std::uint16_t port,
                                   const std::string& reason) {
  throw std::runtime_error("cannot send datagrams to " + host + " port " + std::to_string(port) +
                           ": " + reason);
}

}  // namespace

DatagramSocket::DatagramSocket(const std::string& host, std::uint16_t port) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_DGRAM;
  int unknown = 0;
  const HostAddresses addresses =
      FindHost(host.c_str(), std::to_string(port).c_str(), wanted, &unknown);
  if (addresses == nullptr) {
    ThrowCannotReach(host, port, ::gai_strerror(unknown));
  }
  int error = 0;
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    const int candidate =
        ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
    if (candidate < 0) {
      error = errno;
      continue;
    }
    if (::connect(candidate, address->ai_addr, address->ai_addrlen) == 0) {
      descriptor_ = candidate;
      return;
    }
    error = errno;
    ::close(candidate);
  }
  ThrowCannotReach(host, port, std::generic_category().message(error));
}

DatagramSocket::~DatagramSocket() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

DatagramSocket::DatagramSocket(DatagramSocket&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

DatagramSocket& DatagramSocket::operator=(DatagramSocket&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

bool DatagramSocket::Send(std::string_view bytes) const {
  // An earlier datagram that nobody took is reported by the next send, which then sends nothing:
  // one more try clears that.
  for (int attempt = 0; attempt < 2; ++attempt) {
    const ssize_t sent =
        ::send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      return true;
    }
    if (errno != ECONNREFUSED && errno != EINTR) {
      return false;
    }
  }
  return false;
}

bool IsAddress(const std::string& host) {
  addrinfo wanted{};
  wanted.ai_flags = AI_NUMERICHOST;
  int error = 0;
  return FindHost(host.c_str(), nullptr, wanted, &error) != nullptr;
}

std::string HostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) {
    return {};
  }
  const std::string full(name.data());
  return full.substr(0, full.find('.'));
}

}  // namespace os
