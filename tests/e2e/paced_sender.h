// PacedSender: a transport stream in datagrams, at a pace of its own.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/local_socket.h"

namespace e2e {

// Sends a clip to a port of this machine, again and again, evenly spread over its length, which a
// speed above 1 makes shorter than its timestamps say. Its thread reads what the test hands over.
class PacedSender {
 public:
  enum class Framing { kNone, kRtp };

  // clip: whole packets of 188 bytes. Throws std::system_error.
  PacedSender(std::string clip, std::chrono::milliseconds length, double speed,
              Framing framing = Framing::kNone)
      : first_(std::move(clip)),
        length_(std::chrono::duration<double>(length) / speed),
        framing_(framing),
        thread_([this] { Run(); }) {}
  ~PacedSender() {
    ends_ = true;
    thread_.join();
  }
  PacedSender(const PacedSender&) = delete;
  PacedSender& operator=(const PacedSender&) = delete;

  std::string url() const {
    return (framing_ == Framing::kRtp ? "rtp://127.0.0.1:" : "udp://127.0.0.1:") +
           std::to_string(port_);
  }
  // Changes to another clip of the same length, from its beginning; it outlives the sender.
  void SendFromNowOn(const std::string& clip) { clip_ = &clip; }
  // From now on RTP packets have another SSRC and sequence numbers of their own.
  void ChangeSsrc() { ++ssrc_; }

 private:
  void Run() {
    constexpr std::size_t kDatagram = std::size_t{188} * 4;
    auto begun = std::chrono::steady_clock::now();
    const std::string* clip = clip_;
    std::size_t sent = 0;
    while (!ends_) {
      const auto now = std::chrono::steady_clock::now();
      if (clip != clip_ || sent >= clip->size()) {
        clip = clip_;
        sent = 0;
        begun = now;
      }
      const double passed = std::chrono::duration<double>(now - begun) / length_;
      const auto due = static_cast<std::size_t>(passed * static_cast<double>(clip->size()));
      for (; sent < std::min(due, clip->size()); sent += kDatagram) {
        socket_.SendTo(port_, Header() + clip->substr(sent, kDatagram));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::string Header() {
    if (framing_ == Framing::kNone) {
      return {};
    }
    if (sentSsrc_ != ssrc_) {
      sentSsrc_ = ssrc_;
      number_ = static_cast<std::uint16_t>(number_ - 2000);
    }
    std::string header(12, '\0');
    header[0] = static_cast<char>(0x80);
    header[1] = 33;
    header[2] = static_cast<char>(number_ >> 8);
    header[3] = static_cast<char>(number_ & 0xFF);
    header[11] = static_cast<char>(sentSsrc_);
    ++number_;
    return header;
  }

  const std::string first_;
  const std::chrono::duration<double> length_;
  std::atomic<const std::string*> clip_{&first_};
  const Framing framing_;
  std::atomic<std::uint32_t> ssrc_{0};
  std::uint32_t sentSsrc_ = 0;     // sending thread
  std::uint16_t number_ = 20'000;  // sending thread
  std::atomic<bool> ends_{false};
  const LocalSocket socket_{SOCK_DGRAM};
  const std::uint16_t port_ = FreePort(SOCK_DGRAM);
  std::thread thread_;
};

}  // namespace e2e
