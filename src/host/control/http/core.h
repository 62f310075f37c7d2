// HttpServer::Core: what all connections of the server share.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/error_code.hpp>

#include "host/control/event_feed.h"
#include "host/control/http/access.h"
#include "host/control/http/api.h"
#include "host/control/http/http_server.h"
#include "host/control/http/mailbox.h"
#include "host/control/http/snapshots.h"
#include "platform/os/thread.h"

namespace host::control::http {

class Viewer;

namespace asio = boost::asio;
using boost::system::error_code;

// For co_await: a failure is stored in the error instead of thrown.
inline auto Into(error_code& error) {
  return asio::redirect_error(asio::use_awaitable, error);
}

// Maps an IPv4 address that came in at an IPv6 socket back to IPv4.
inline asio::ip::address Plain(const asio::ip::address& address) {
  return address.is_v6() && address.to_v6().is_v4_mapped()
             ? asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6())
             : address;
}

// Its members are used on the server's thread only, once that runs.
class HttpServer::Core {
 public:
  Core(Settings serverSettings, WallControl& control);
  ~Core();

  const Limits& limits() const { return settings_.limits; }
  Access& access() { return access_; }
  const Api& api() const { return api_; }
  asio::io_context& loop() { return loop_; }
  const std::shared_ptr<Mailbox>& mailbox() const { return mailbox_; }
  // Null when none is served.
  const std::shared_ptr<FragmentFeed>& preview() const { return settings_.preview; }
  std::shared_ptr<FragmentFeed> audio(std::size_t slot) const {
    return slot < settings_.audio.size() ? settings_.audio[slot] : nullptr;
  }
  std::string url() const;

  // The answer to a request whose body has come.
  asio::awaitable<Answer> Respond(const Match& match, const Head& head, const std::string& body);
  // Throws Problem.
  asio::awaitable<Snapshots::Picture> TakePicture(Snapshots::View view);
  // The reply to a message of a WebSocket.
  asio::awaitable<std::string> Reply(const std::string& text, const Head& head, Viewer& viewer);

 private:
  void Listen();
  asio::awaitable<void> Accept();
  void Begin(asio::ip::tcp::socket socket);
  // None when the wall takes too long.
  asio::awaitable<std::optional<Result>> Submit(Request request);
  Answer Metrics() const;
  // Throws Problem when the wall is not alive, or not ready.
  Answer Health(Route::What what) const;
  // Says who the client is; begins or ends its session.
  Answer Session(const Match& match, const Head& head, const std::string& body);

  const Settings settings_;
  Access access_;
  const Api api_;
  std::unique_ptr<History> history_;
  Connections connections_;
  std::optional<asio::ssl::context> tls_;
  const std::shared_ptr<Mailbox> mailbox_;
  Snapshots snapshots_;
  // Destroyed before all of the above, with the coroutines that still wait in it.
  asio::io_context loop_;
  std::optional<asio::ip::tcp::acceptor> acceptor_;
  std::unique_ptr<os::Thread> thread_;
};

// Serves one connection to its end; tls is null for plain HTTP.
asio::awaitable<void> ServeConnection(HttpServer::Core& core, asio::ip::tcp::socket socket,
                                      asio::ssl::context* tls, Connections::Ticket ticket);

}  // namespace host::control::http
