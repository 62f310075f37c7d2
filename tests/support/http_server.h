// HttpServer: serves one file, or several, over HTTP, and knows no byte ranges.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
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

  // The content at a path; none: 404. Called by the server's thread.
  using Find = std::function<std::optional<std::string>(const std::string& path)>;

  HttpServer(std::string file, Manner manner)
      : HttpServer([file = std::move(file)](const std::string&) { return file; }, manner) {}
  explicit HttpServer(Find find, Manner manner = Manner::kIgnoresRanges)
      : find_(std::move(find)), manner_(manner) {
    thread_ = std::thread([this] { Run(); });
  }
  ~HttpServer() {
    ends_ = true;
    thread_.join();
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const std::string& url() const { return url_; }
  std::string UrlOf(const std::string& name) const {
    return "http://" + listener_.address() + "/" + name;
  }

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
    const std::size_t path = request.find(' ') + 1;
    const std::optional<std::string> found =
        find_(request.substr(path, request.find(' ', path) - path));
    const std::string file = found.value_or("");
    const bool refused =
        manner_ == Manner::kRefusesRanges && request.find("Range:") != std::string::npos;
    const std::string head =
        std::string(!found    ? "HTTP/1.1 404 No"
                    : refused ? "HTTP/1.1 416 No"
                              : "HTTP/1.1 200 OK") +
        "\r\nConnection: close\r\n" +
        (manner_ == Manner::kPromisesRanges ? "Accept-Ranges: bytes\r\n" : "") +
        "Content-Length: " + std::to_string(refused ? 0 : file.size()) + "\r\n\r\n";
    const bool stalls = manner_ == Manner::kStalls;
    const std::string answer = head + file.substr(0, refused  ? 0
                                                     : stalls ? file.size() / 2
                                                              : std::string::npos);
    for (std::size_t sent = 0; sent < answer.size() && !ends_;) {
      const ssize_t count = ::send(peer, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) {
        return;
      }
      sent += static_cast<std::size_t>(count);
    }
    if (stalls) {
      WaitFor(peer);  // until it closes
    }
  }

  const Find find_;
  const Manner manner_;
  const LocalSocket listener_{SOCK_STREAM};
  const std::string url_ = "http://" + listener_.address() + "/clip";
  std::atomic<bool> ends_{false};
  std::thread thread_;
};
