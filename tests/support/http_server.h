// HttpServer: serves one file over HTTP, and knows no byte ranges.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include <poll.h>

#include "tests/support/local_socket.h"

class HttpServer {
 public:
  enum class Manner {
    kIgnoresRanges,
    kPromisesRanges,  // and ignores them all the same
    kRefusesRanges,
    kStalls,  // after the first half
  };

  HttpServer(std::string file, Manner manner) : file_(std::move(file)), manner_(manner) {
    thread_ = std::thread([this] { Run(); });
  }
  ~HttpServer() {
    ends_ = true;
    thread_.join();
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const std::string& url() const { return url_; }

 private:
  // False at the end.
  bool WaitFor(int descriptor) const {
    pollfd waiting{descriptor, POLLIN, 0};
    while (!ends_ && ::poll(&waiting, 1, 20) == 0) {
    }
    return !ends_;
  }
  void Run() {
    while (WaitFor(listener_.descriptor())) {
      const int peer = listener_.Accept();
      Answer(peer);
      ::close(peer);
    }
  }
  void Answer(int peer) const {
    std::string request;
    char part[2048];
    while (request.find("\r\n\r\n") == std::string::npos && WaitFor(peer)) {
      const ssize_t count = ::recv(peer, part, sizeof(part), 0);
      if (count <= 0) {
        return;
      }
      request.append(part, static_cast<std::size_t>(count));
    }
    const bool refused =
        manner_ == Manner::kRefusesRanges && request.find("Range:") != std::string::npos;
    const std::string head =
        std::string(refused ? "HTTP/1.1 416 No" : "HTTP/1.1 200 OK") + "\r\nConnection: close\r\n" +
        (manner_ == Manner::kPromisesRanges ? "Accept-Ranges: bytes\r\n" : "") +
        "Content-Length: " + std::to_string(refused ? 0 : file_.size()) + "\r\n\r\n";
    const bool stalls = manner_ == Manner::kStalls;
    const std::string answer = head + file_.substr(0, refused  ? 0
                                                      : stalls ? file_.size() / 2
                                                               : std::string::npos);
    for (std::size_t sent = 0; sent < answer.size() && !ends_;) {
      const ssize_t count = ::send(peer, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) {
        return;
      }
      sent += static_cast<std::size_t>(count);
    }
    if (stalls) {
      WaitFor(peer);  // for its going
    }
  }

  const std::string file_;
  const Manner manner_;
  const LocalSocket listener_{SOCK_STREAM};
  const std::string url_ = "http://" + listener_.address() + "/clip";
  std::atomic<bool> ends_{false};
  std::thread thread_;
};
