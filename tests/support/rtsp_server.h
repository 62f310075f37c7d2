// RtspServer: a camera on this machine.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/local_socket.h"

// Sends a clip with one video and one audio stream to everybody who plays it, from its beginning
// and in real time but for the first half second, which comes at once, over the connection itself
// ("interleaved") or in datagrams, as the client wishes. Like a camera it can fall silent, stop
// answering or hang up.
//
// A thread of its own does everything with the sockets.
class RtspServer {
 public:
  enum class Mood {
    kPlays,
    kSilent,  // answers, and sends nothing; what would have been sent meanwhile is lost
    kMute,    // lets clients connect, and neither answers nor sends
  };

  // Throws host::ffmpeg::Error (the clip).
  explicit RtspServer(const std::filesystem::path& clip);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  // credentials: "user:password@" or nothing; anything is let in.
  std::string Url(const std::string& credentials = {}) const;
  void Become(Mood mood) { mood_ = mood; }
  // Every client is hung up on after playing for that long; 0: never.
  void HangUpAfter(std::chrono::milliseconds length) { hangUpAfter_ = length.count(); }
  // Who is connected.
  int clients() const { return connected_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct RtpPacket {
    std::chrono::microseconds due;
    int track = 0;
    bool control = false;
    std::string bytes;
  };
  struct Client;

  void Pack(const std::filesystem::path& clip);
  void Run();
  void Accept();
  bool OnSourceEvent(Client& client);
  void Answer(Client& client, const std::string& request);
  std::string SetUp(Client& client, const std::string& request);
  void Send(Client& client);
  static bool Flush(Client& client);

  std::vector<RtpPacket> packets_;
  std::string description_;  // SDP
  const LocalSocket listener_{SOCK_STREAM | SOCK_NONBLOCK};
  const LocalSocket datagrams_{SOCK_DGRAM | SOCK_NONBLOCK};
  std::atomic<Mood> mood_{Mood::kPlays};
  std::atomic<std::int64_t> hangUpAfter_{0};  // milliseconds
  std::atomic<int> connected_{0};
  std::atomic<bool> ends_{false};
  std::list<Client> clients_;  // the thread's
  std::thread thread_;
};
