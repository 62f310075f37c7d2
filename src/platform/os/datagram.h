// Sending datagrams.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace os {

// A UDP socket that is connected to one destination, or invalid. Any thread may send.
class DatagramSocket {
 public:
  // Invalid: sends nothing.
  DatagramSocket() = default;
  // Throws std::runtime_error that names host, port and the reason when the host cannot be resolved
  // or the system refuses the socket. A host that does not listen is no error.
  DatagramSocket(const std::string& host, std::uint16_t port);
  ~DatagramSocket();
  DatagramSocket(DatagramSocket&& other) noexcept;
  DatagramSocket& operator=(DatagramSocket&& other) noexcept;
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;

  bool IsValid() const { return descriptor_ >= 0; }
  // One datagram; never waits for the network. False when it could not be sent.
  bool Send(std::string_view bytes) const;

 private:
  int descriptor_ = -1;
};

// Whether a host is given by its address, which needs no name server.
bool IsAddress(const std::string& host);

// The name of this machine, up to the first dot; empty when the system has none.
std::string HostName();

}  // namespace os
