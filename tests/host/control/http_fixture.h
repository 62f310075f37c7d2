// A wall without a session, and its HTTP server.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/config/wall_file.h"
#include "host/control/http/http_server.h"
#include "tests/support/temporary_folder.h"

namespace host::control::http {

namespace asio = boost::asio;
using asio::ip::tcp;
using WebSocket = boost::beast::websocket::stream<tcp::socket>;
using Json = nlohmann::json;

// Stands for the session: everything is shown from frame 42 on.
class FakeExecutor final : public WallExecutor {
  std::int64_t Execute(const WallState&, const WallState&) override { return 42; }
};

// A wall of two channels and a slot, the thread that carries out its requests, and its server.
class HttpTest : public ::testing::Test {
 protected:
  HttpTest() { settings_.http.listen = config::Endpoint{"127.0.0.1", 0}; }
  ~HttpTest() override {
    ends_ = true;
    control_.waiting().Set();
    thread_.join();
  }
  void Start() {
    settings_.snapshot = [](const Snapshots::View& view) {
      return std::optional<std::string>(view.isSmall  ? "small JPEG"
                                        : view.window ? "JPEG of a window"
                                                      : "JPEG of all");
    };
    server_ = std::make_unique<HttpServer>(settings_, control_);
    port_ = server_->url().substr(server_->url().rfind(':') + 1);
  }
  tcp::socket Connect() {
    tcp::socket socket(io_);
    socket.connect(
        {asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(std::stoi(port_))});
    return socket;
  }
  static std::string ReadAll(tcp::socket& socket) {
    std::string text;
    boost::system::error_code end;
    asio::read(socket, asio::dynamic_buffer(text), end);
    return text;
  }
  // The answer to a request that names the wall as its host, unless its fields say otherwise.
  std::string Ask(const std::string& line, const std::string& body = {}, std::string fields = {}) {
    tcp::socket socket = Connect();
    if (fields.find("Host:") == std::string::npos) {
      fields += "Host: 127.0.0.1:" + port_ + "\r\n";
    }
    if (!body.empty() && fields.find("Content-Type:") == std::string::npos) {
      fields += "Content-Type: application/json\r\n";
    }
    if (!body.empty()) {
      fields += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    boost::system::error_code ignored;  // the server may not read all of it
    asio::write(socket,
                asio::buffer(line + " HTTP/1.1\r\nConnection: close\r\n" + fields + "\r\n" + body),
                ignored);
    return ReadAll(socket);
  }
  std::unique_ptr<WebSocket> OpenWebSocket() {
    auto socket = std::make_unique<WebSocket>(Connect());
    socket->handshake("127.0.0.1:" + port_, "/ws");
    return socket;
  }
  static Json ReadMessage(WebSocket& socket) {
    boost::beast::flat_buffer message;
    socket.read(message);
    return Json::parse(boost::beast::buffers_to_string(message.data()));
  }

  const TemporaryFolder folder_;
  FakeExecutor executor_;
  WallControl control_{
      config::ParseWall("[wall]\nspare = 1\n"
                        "[[channel]]\nname = 'Cam 1'\nsource = 'udp://239.1.1.1:1'\n"
                        "[[channel]]\nname = 'Cam 2'\nsource = 'udp://239.1.1.2:1'\n",
                        "/walls")
          .wall,
      executor_,
      {.wallFile = folder_ / "wall.toml", .live = {}, .say = {}}};
  std::atomic<bool> ends_{false};
  std::thread thread_{[this] {
    while (!ends_) {
      control_.waiting().Wait(os::kInfinite);
      control_.Run();
    }
  }};
  HttpServer::Settings settings_;
  std::unique_ptr<HttpServer> server_;
  std::string port_;
  asio::io_context io_;
};

}  // namespace host::control::http
