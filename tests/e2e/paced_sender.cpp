#include "tests/e2e/paced_sender.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace e2e {
namespace {

constexpr std::size_t kDatagram = std::size_t{188} * 4;

}  // namespace

PacedSender::PacedSender(std::string clip, std::chrono::milliseconds length, double speed,
                         Framing framing)
    : first_(std::move(clip)),
      length_(std::chrono::duration<double>(length) / speed),
      framing_(framing),
      descriptor_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  // A port that was free a moment ago.
  const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address_);
  if (descriptor_ < 0 ||
      ::bind(probe, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) != 0 ||
      ::getsockname(probe, reinterpret_cast<sockaddr*>(&address_), &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "no port to send to");
  }
  ::close(probe);
  thread_ = std::thread([this] { Run(); });
}

PacedSender::~PacedSender() {
  ends_ = true;
  thread_.join();
  ::close(descriptor_);
}

std::string PacedSender::url() const {
  const std::string scheme = framing_ == Framing::kRtp ? "rtp" : "udp";
  return scheme + "://127.0.0.1:" + std::to_string(ntohs(address_.sin_port));
}

std::string PacedSender::Header() {
  if (framing_ == Framing::kNone) {
    return {};
  }
  if (sentIdentity_ != identity_) {
    sentIdentity_ = identity_;
    number_ = static_cast<std::uint16_t>(number_ - 2000);
  }
  std::string header(12, '\0');
  header[0] = static_cast<char>(0x80);
  header[1] = 33;
  header[2] = static_cast<char>(number_ >> 8);
  header[3] = static_cast<char>(number_ & 0xFF);
  header[11] = static_cast<char>(sentIdentity_);
  ++number_;
  return header;
}

void PacedSender::Run() {
  auto begun = std::chrono::steady_clock::now();
  const std::string* clip = clip_;
  std::size_t sent = 0;
  while (!ends_) {
    if (clip != clip_ || sent >= clip->size()) {
      clip = clip_;
      sent = 0;
      begun = std::chrono::steady_clock::now();
    }
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begun;
    const auto due = static_cast<std::size_t>(passed / length_ * static_cast<double>(clip->size()));
    for (; sent < std::min(due, clip->size()); sent += kDatagram) {
      const std::string datagram = Header() + clip->substr(sent, kDatagram);
      ::sendto(descriptor_, datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr*>(&address_), sizeof(address_));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace e2e
