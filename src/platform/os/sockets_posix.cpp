#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/os/sockets.h"

namespace os {
namespace {

// What the system's resolver finds for a host.
struct FreeAddresses {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using HostAddresses = std::unique_ptr<addrinfo, FreeAddresses>;

// port: null for none. May wait for the network. Null, and the resolver's error for gai_strerror,
// when there is no such host.
HostAddresses FindHost(const char* host, const char* port, const addrinfo& wanted, int* error) {
  addrinfo* found = nullptr;
  *error = ::getaddrinfo(host, port, &wanted, &found);
  return HostAddresses(*error == 0 ? found : nullptr);
}

constexpr int kBacklog = 64;

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

sockaddr_un LocalAddress(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.native().size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("the path of the socket is longer than " +
                             std::to_string(sizeof(address.sun_path) - 1) +
                             " bytes: " + path.string());
  }
  std::memcpy(address.sun_path, path.c_str(), path.native().size());
  return address;
}

// The numeric address, without port or brackets.
std::string AddressText(const sockaddr_storage& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    ::inet_ntop(AF_INET, &v4.sin_addr, text.data(), text.size());
  } else if (address.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    ::inet_ntop(AF_INET6, &v6.sin6_addr, text.data(), text.size());
  }
  return text.data();
}

// A bound socket that never blocks, or -1 with errno.
int OpenBound(const addrinfo& address) {
  const int descriptor =
      ::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    return -1;
  }
  const int on = 1;
  const bool isStream = address.ai_socktype == SOCK_STREAM;
  if (isStream) {
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  }
  if (::bind(descriptor, address.ai_addr, address.ai_addrlen) != 0 ||
      (isStream && ::listen(descriptor, kBacklog) != 0)) {
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}

int Bind(int type, const std::string& host, std::uint16_t port) {
  addrinfo wanted{};
  wanted.ai_socktype = type;
  wanted.ai_flags = AI_PASSIVE;
  int error = 0;
  const HostAddresses addresses =
      FindHost(host.c_str(), std::to_string(port).c_str(), wanted, &error);
  const std::string where = "cannot listen at " + host + " port " + std::to_string(port) + ": ";
  if (addresses == nullptr) {
    throw std::runtime_error(where + ::gai_strerror(error));
  }
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    if (const int descriptor = OpenBound(*address); descriptor >= 0) {
      return descriptor;
    }
  }
  throw std::runtime_error(where + ErrorText(errno));
}

// Bytes of an address, 4 or 16; an IPv4 address within IPv6 has 4.
std::string AddressBytes(const std::string& text) {
  std::array<char, 16> bytes{};
  if (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
    return {bytes.data(), 4};
  }
  if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) {
    return {};
  }
  constexpr std::string_view kMapped("\0\0\0\0\0\0\0\0\0\0\xFF\xFF", 12);
  const std::string all(bytes.data(), bytes.size());
  return all.starts_with(kMapped) ? all.substr(kMapped.size()) : all;
}

struct Network {
  std::string bytes;
  std::size_t bits = 0;
};

std::optional<Network> ParseNetwork(const std::string& text) {
  const std::size_t slash = text.find('/');
  Network network{AddressBytes(text.substr(0, slash)), 0};
  network.bits = network.bytes.size() * 8;
  if (slash != std::string::npos) {
    const std::size_t longest = network.bits;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data() + slash + 1, end, network.bits);
    if (error != std::errc() || last != end || network.bits > longest) {
      return std::nullopt;
    }
  }
  return network.bytes.empty() ? std::nullopt : std::optional(network);
}

}  // namespace

Socket Socket::ListenLocal(const std::filesystem::path& path) {
  const sockaddr_un address = LocalAddress(path);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  struct stat former {};
  if (::lstat(path.c_str(), &former) == 0) {
    if (!S_ISSOCK(former.st_mode)) {
      throw std::runtime_error("is no socket: " + path.string());
    }
    bool isAnswered = true;
    try {
      const Socket probe = ConnectLocal(path);
    } catch (const std::system_error& error) {
      isAnswered = error.code() != std::errc::connection_refused;
    }
    if (isAnswered) {
      throw std::runtime_error("another wall that is running has it: " + path.string());
    }
    ::unlink(path.c_str());
  }
  Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // The mode is in force before anybody can connect.
  if (!socket.IsValid() || ::bind(socket.descriptor_, generic, sizeof(address)) != 0 ||
      ::chmod(path.c_str(), 0600) != 0 || ::listen(socket.descriptor_, kBacklog) != 0) {
    throw std::runtime_error(path.string() + ": " + ErrorText(errno));
  }
  return socket;
}

Socket Socket::ConnectLocal(const std::filesystem::path& path) {
  const sockaddr_un address = LocalAddress(path);
  Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsValid() ||
      ::connect(socket.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
          0) {
    throw std::system_error(errno, std::generic_category(), path.string());
  }
  return socket;
}

Socket Socket::ListenTcp(const std::string& host, std::uint16_t port) {
  return Socket(Bind(SOCK_STREAM, host, port));
}

Socket Socket::BindUdp(const std::string& host, std::uint16_t port) {
  return Socket(Bind(SOCK_DGRAM, host, port));
}

void Socket::Close() {
  if (descriptor_ >= 0) {
    ::close(std::exchange(descriptor_, -1));
  }
}

std::uint16_t Socket::port() const {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                   : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

Socket Socket::Accept(std::string* peer) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  Socket accepted(::accept4(descriptor_, reinterpret_cast<sockaddr*>(&address), &size,
                            SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (peer != nullptr) {
    *peer = AddressText(address);
  }
  return accepted;
}

std::optional<std::size_t> Socket::Receive(std::span<char> buffer, std::string* sender) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  const ssize_t count = ::recvfrom(descriptor_, buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr*>(&address), &size);
  if (sender != nullptr) {
    *sender = AddressText(address);
  }
  if (count >= 0) {
    return static_cast<std::size_t>(count);
  }
  const bool isEarly = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  return isEarly ? std::nullopt : std::optional<std::size_t>(0);
}

std::optional<std::size_t> Socket::Send(std::string_view bytes) {
  const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (count >= 0) {
    return static_cast<std::size_t>(count);
  }
  const bool isFull = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  return isFull ? std::optional<std::size_t>(0) : std::nullopt;
}

SocketPoll::SocketPoll() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeUp_ < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot wait for sockets");
  }
}

SocketPoll::~SocketPoll() {
  ::close(wakeUp_);
}

void SocketPoll::Wait(std::span<Item> items, std::chrono::milliseconds limit) {
  std::vector<pollfd> waiting{{wakeUp_, POLLIN, 0}};
  for (const Item& item : items) {
    const int events = (item.wantsToReceive ? POLLIN : 0) | (item.wantsToSend ? POLLOUT : 0);
    waiting.push_back({item.socket->descriptor_, static_cast<short>(events), 0});
  }
  const auto milliseconds = std::clamp<std::int64_t>(limit.count(), -1, 3'600'000);
  ::poll(waiting.data(), waiting.size(), static_cast<int>(milliseconds));
  std::uint64_t taken = 0;
  [[maybe_unused]] const ssize_t read = ::read(wakeUp_, &taken, sizeof(taken));
  for (std::size_t i = 0; i < items.size(); ++i) {
    const int events = waiting[i + 1].revents;
    items[i].canReceive = (events & POLLIN) != 0;
    items[i].hasEnded = (events & (POLLHUP | POLLERR)) != 0;
  }
}

void SocketPoll::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wakeUp_, &one, sizeof(one));
}

bool IsNetwork(const std::string& text) {
  return ParseNetwork(text).has_value();
}

bool IsInNetwork(const std::string& address, const std::string& network) {
  const std::string bytes = AddressBytes(address);
  const std::optional<Network> wanted = ParseNetwork(network);
  if (!wanted || bytes.size() != wanted->bytes.size()) {
    return false;
  }
  for (std::size_t bit = 0; bit < wanted->bits; ++bit) {
    const int mask = 0x80 >> (bit % 8);
    if (((bytes[bit / 8] ^ wanted->bytes[bit / 8]) & mask) != 0) {
      return false;
    }
  }
  return true;
}

std::filesystem::path RuntimeFolder(std::string_view program) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder != nullptr && *folder == '/') {
    return std::filesystem::path(folder) / program;
  }
  if (::geteuid() == 0) {
    return std::filesystem::path("/run") / program;
  }
  // Another user may have made the folder, and could put a socket of their own into it.
  std::filesystem::path own = std::filesystem::temp_directory_path() /
                              (std::string(program) + "-" + std::to_string(::geteuid()));
  struct stat found {};
  if ((::mkdir(own.c_str(), 0700) != 0 && errno != EEXIST) || ::lstat(own.c_str(), &found) != 0) {
    throw std::runtime_error(own.string() + ": " + ErrorText(errno));
  }
  if (!S_ISDIR(found.st_mode) || found.st_uid != ::geteuid() || (found.st_mode & 0077) != 0) {
    throw std::runtime_error(own.string() +
                             ": is no folder that is this user's alone; remove it, or set "
                             "XDG_RUNTIME_DIR");
  }
  return own;
}

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
  // A send that reports the refusal of an earlier datagram sends nothing: a second attempt does.
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
