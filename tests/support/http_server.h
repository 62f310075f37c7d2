// HttpServer: serves one file over HTTP, and knows no byte ranges.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

class HttpServer {
 public:
  enum class Manner {
    kIgnoresRanges,
    kPromisesRanges,  // and ignores them all the same
    kRefusesRanges,
    kStalls,  // after the first half
  };

  HttpServer(std::string file, Manner manner) : file_(std::move(file)), manner_(manner) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(listener_, generic, size), 0);
    EXPECT_EQ(::listen(listener_, 8), 0);
    EXPECT_EQ(::getsockname(listener_, generic, &size), 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/clip";
    thread_ = std::thread([this] { Run(); });
  }
  ~HttpServer() {
    ends_ = true;
    thread_.join();
    ::close(listener_);
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
    while (WaitFor(listener_)) {
      const int peer = ::accept(listener_, nullptr, nullptr);
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
  std::string url_;
  const int listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::atomic<bool> ends_{false};
  std::thread thread_;
};
