// LocalSocket: a socket at a free port of this machine.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

class LocalSocket {
 public:
  // type: SOCK_STREAM, which listens, or SOCK_DGRAM, with flags such as SOCK_NONBLOCK. Throws
  // std::system_error.
  explicit LocalSocket(int type, const char* host = "127.0.0.1", std::uint16_t port = 0)
      : descriptor_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_port = htons(port);
    ::inet_pton(AF_INET, host, &address_.sin_addr);
    auto* const generic = reinterpret_cast<sockaddr*>(&address_);
    socklen_t size = sizeof(address_);
    if (::bind(descriptor_, generic, size) != 0 ||
        ((type & SOCK_STREAM) != 0 && ::listen(descriptor_, 64) != 0) ||
        ::getsockname(descriptor_, generic, &size) != 0) {
      const int error = errno;
      ::close(descriptor_);
      throw std::system_error(error, std::generic_category(), "no local socket");
    }
  }
  ~LocalSocket() { ::close(descriptor_); }
  LocalSocket(const LocalSocket&) = delete;
  LocalSocket& operator=(const LocalSocket&) = delete;

  int descriptor() const { return descriptor_; }
  std::uint16_t port() const { return ntohs(address_.sin_port); }
  // "127.0.0.1:1234"
  std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
  // A peer's descriptor, the caller's to close; negative without one.
  int Accept(int flags = 0) const {
    return ::accept4(descriptor_, nullptr, nullptr, flags | SOCK_CLOEXEC);
  }
  // To a port of this machine.
  void SendTo(std::uint16_t port, const std::string& datagram) const {
    sockaddr_in to = address_;
    to.sin_port = htons(port);
    ::sendto(descriptor_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
             sizeof(to));
  }

 private:
  const int descriptor_;
  sockaddr_in address_{};
};

// A port of this machine that was free a moment ago.
inline std::uint16_t FreePort(int type) {
  return LocalSocket(type).port();
}
