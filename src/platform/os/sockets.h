// Non-blocking sockets: local ones by path, TCP and UDP. A socket that sends datagrams to one
// destination. Addresses and networks.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace os {

// Owns its descriptor; invalid once closed or moved from. One thread.
class Socket {
 public:
  // Accepts connections of programs of the same user at a path: mode 0600. A socket left by a
  // program that has ended is replaced. Throws std::runtime_error, also when a program still
  // listens there or the path is not a socket.
  static Socket ListenLocal(const std::filesystem::path& path);
  // Throws std::system_error when nobody listens there.
  static Socket ConnectLocal(const std::filesystem::path& path);
  // host: an address, or a name that is resolved now. Throws std::runtime_error.
  static Socket ListenTcp(const std::string& host, std::uint16_t port);
  static Socket BindUdp(const std::string& host, std::uint16_t port);

  Socket() = default;
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool IsValid() const { return descriptor_ >= 0; }
  void Close();
  std::uint16_t port() const;  // its own, of TCP and UDP

  // Invalid when nobody waits. peer: the other end's address, without its port.
  Socket Accept(std::string* peer = nullptr);
  // Bytes read; 0: the other end has closed or failed; none: nothing is there yet. UDP: one
  // datagram, cut to the buffer; 0 is an empty one.
  std::optional<std::size_t> Receive(std::span<char> buffer, std::string* sender = nullptr);
  // Bytes taken, maybe fewer than given; none: the connection has failed.
  std::optional<std::size_t> Send(std::string_view bytes);

 private:
  friend class SocketPoll;
  explicit Socket(int descriptor) : descriptor_(descriptor) {}

  int descriptor_ = -1;
};

// Waits for several sockets at once. One thread, except Wake.
class SocketPoll {
 public:
  // Throws std::system_error.
  SocketPoll();
  ~SocketPoll();
  SocketPoll(const SocketPoll&) = delete;
  SocketPoll& operator=(const SocketPoll&) = delete;

  struct Item {
    const Socket* socket = nullptr;
    bool wantsToReceive = true;
    bool wantsToSend = false;
    bool canReceive = false;  // results; a closed connection can receive
    bool hasEnded = false;    // nobody is at the other end, or the connection has failed
  };
  // Until one of them is ready, Wake is called, or the time is over; negative: no limit.
  void Wait(std::span<Item> items, std::chrono::milliseconds limit);
  // Ends a wait, or the next one. Any thread.
  void Wake();

 private:
  const int wakeUp_;
};

// "10.0.0.7", "::1", "10.0.0.0/24", "fd00::/8".
bool IsNetwork(const std::string& text);
// Whether an address lies in it. IPv4-mapped IPv6 addresses count as IPv4.
bool IsInNetwork(const std::string& address, const std::string& network);

// The folder for the sockets of running programs: $XDG_RUNTIME_DIR, or /run for the superuser, or
// the folder of temporary files with the user's number, which is made when it is missing. Throws
// std::runtime_error when that is not the user's alone.
std::filesystem::path RuntimeFolder(std::string_view program);

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
