// DatagramReceiver: takes datagrams on a port of this machine.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

class DatagramReceiver {
 public:
  // Takes both kinds of addresses.
  DatagramReceiver() : socket_(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof(address);
    const int both = 0;
    ::setsockopt(socket_, IPPROTO_IPV6, IPV6_V6ONLY, &both, sizeof(both));
    const timeval limit{30, 0};
    if (socket_ < 0 ||
        ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot receive datagrams");
    }
    port_ = ntohs(address.sin6_port);
  }
  ~DatagramReceiver() { ::close(socket_); }
  DatagramReceiver(const DatagramReceiver&) = delete;
  DatagramReceiver& operator=(const DatagramReceiver&) = delete;

  std::uint16_t Port() const { return port_; }
  // The next datagram; if none arrives within 30 s, a text that says so.
  std::string Receive() const {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    return count < 0 ? "(no datagram)"
                     : std::string(buffer.data(), static_cast<std::size_t>(count));
  }

 private:
  int socket_;
  std::uint16_t port_ = 0;
};
