// PacedSender: a transport stream in datagrams, at a pace of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include <netinet/in.h>

namespace e2e {

// Sends a clip to a port of this machine, again and again, evenly spread over its length, which a
// speed above 1 makes shorter than its stamps say. Its thread reads what the test hands over.
class PacedSender {
 public:
  enum class Framing { kNone, kRtp };

  // clip: whole packets of 188 bytes. Throws std::system_error.
  PacedSender(std::string clip, std::chrono::milliseconds length, double speed,
              Framing framing = Framing::kNone);
  ~PacedSender();
  PacedSender(const PacedSender&) = delete;
  PacedSender& operator=(const PacedSender&) = delete;

  std::string url() const;
  // Another clip of the same length, from its beginning; it outlives the sender.
  void SendFromNowOn(const std::string& clip) { clip_ = &clip; }
  // From now on the packets of RTP are those of another sender, with numbers of its own.
  void ChangeIdentity() { ++identity_; }

 private:
  void Run();
  std::string Header();

  const std::string first_;
  const std::chrono::duration<double> length_;
  std::atomic<const std::string*> clip_{&first_};
  const Framing framing_;
  std::atomic<std::uint32_t> identity_{0};
  std::uint32_t sentIdentity_ = 0;  // sending thread
  std::uint16_t number_ = 20'000;   // sending thread
  std::atomic<bool> ends_{false};
  int descriptor_ = -1;
  sockaddr_in address_{};
  std::thread thread_;
};

}  // namespace e2e
