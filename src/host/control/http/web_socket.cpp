#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "host/control/http/connection.h"
#include "host/control/http/viewer.h"

namespace host::control::http {

namespace {

namespace websocket = boost::beast::websocket;

// A send buffer of more than a second of video would only show it late to a slow client.
constexpr int kSendBuffer = 128 << 10;  // bytes

// Shared by the coroutine that writes and the one that reads; ends with the later of them.
template <typename Stream>
struct Session {
  Session(HttpServer::Core& core, Stream stream)
      : socket(std::move(stream)),
        follower(core, std::nullopt),
        viewer(core, follower.wake()),
        replied(core.loop()) {}

  websocket::stream<Stream> socket;
  Follower follower;
  Viewer viewer;
  std::string reply;  // that waits; the next message is read once it is being sent
  asio::steady_timer replied;
  std::optional<websocket::close_reason> closing;
};

template <typename Stream>
asio::awaitable<void> ReadMessages(HttpServer::Core& core, std::shared_ptr<Session<Stream>> session,
                                   Head head) {
  error_code error;
  while (!session->closing) {
    boost::beast::flat_buffer message;
    co_await session->socket.async_read(message, Into(error));
    if (error) {
      break;
    }
    if (!session->socket.got_text()) {
      session->closing = {websocket::close_code::unknown_data, "messages are text"};
      session->follower.Wake();
      co_return;
    }
    std::string reply =
        co_await core.Reply(boost::beast::buffers_to_string(message.data()), head, session->viewer);
    session->reply = std::move(reply);
    session->follower.Wake();
    // A client that sends without reading its replies only fills its own buffers.
    while (!session->reply.empty() && !session->follower.hasEnded()) {
      session->replied.expires_at(asio::steady_timer::time_point::max());
      co_await session->replied.async_wait(Into(error));
    }
  }
  session->follower.End();
}

}  // namespace

template <typename Stream>
asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, Stream stream, UpgradeRequest request,
                                     Head head, Connections::Ticket ticket) {
  const auto session = std::make_shared<Session<Stream>>(core, std::move(stream));
  auto& socket = session->socket;
  auto& lowest = boost::beast::get_lowest_layer(socket);
  ticket->close = [weak = std::weak_ptr(session)] {
    if (const auto open = weak.lock()) {
      boost::beast::get_lowest_layer(open->socket).close();
    }
  };
  lowest.expires_never();
  socket.set_option(
      websocket::stream_base::timeout{core.limits().header, core.limits().idle, true});
  socket.set_option(websocket::stream_base::decorator(
      [](websocket::response_type& response) { SetSecurityFields(response); }));
  socket.read_message_max(core.limits().messageBytes);
  error_code error;
  co_await socket.async_accept(request, Into(error));
  if (error) {
    co_return;
  }
  // One message is one WebSocket frame, written without a copy.
  socket.auto_fragment(false);
  lowest.socket().set_option(asio::socket_base::send_buffer_size(kSendBuffer), error);
  asio::co_spawn(core.loop(), ReadMessages(core, session, head), asio::detached);
  Follower& follower = session->follower;
  while (!follower.hasEnded() && !error) {
    if (follower.events().isDropped()) {
      session->closing = {websocket::close_code::try_again_later, "too slow for the events"};
    }
    if (session->closing) {
      co_await socket.async_close(*session->closing, Into(error));
      break;
    }
    std::vector<std::string> texts;
    if (auto snapshot = follower.TakeSnapshot()) {
      texts.push_back(std::move(snapshot->second));
    }
    for (const EventFeed::Event& event : follower.events().Take()) {
      texts.push_back(Api::Numbered(event));
    }
    if (!session->reply.empty()) {
      texts.push_back(std::exchange(session->reply, {}));
      session->replied.cancel();
    }
    // Events take precedence over video, which may wait and be skipped.
    std::optional<Viewer::Outgoing> outgoing;
    if (texts.empty()) {
      outgoing = session->viewer.Next();
      if (!outgoing) {
        co_await follower.Wait(session->viewer.Wait(core.limits().idle));
        continue;
      }
      if (!outgoing->event.empty()) {
        texts.push_back(std::move(outgoing->event));
      }
    }
    socket.text(true);
    for (const std::string& text : texts) {
      co_await socket.async_write(asio::buffer(text), Into(error));
      if (error || follower.events().isDropped()) {
        break;
      }
    }
    if (outgoing && outgoing->piece && !error) {
      socket.binary(true);
      const std::array<asio::const_buffer, 2> message{asio::buffer(outgoing->header),
                                                      asio::buffer(outgoing->piece->bytes)};
      co_await socket.async_write(message, Into(error));
    }
  }
  follower.End();
  session->replied.cancel();
  lowest.close();
}

template asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, PlainStream stream,
                                              UpgradeRequest request, Head head,
                                              Connections::Ticket ticket);
template asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, TlsStream stream,
                                              UpgradeRequest request, Head head,
                                              Connections::Ticket ticket);

}  // namespace host::control::http
