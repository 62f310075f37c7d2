// The common part of both kinds of connections, requests and WebSockets: their streams, the header
// fields of every response, and the subscription of a client to the events.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/awaitable.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "host/control/http/core.h"
#include "host/control/http/message.h"

namespace host::control::http {

namespace bhttp = boost::beast::http;

using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

// No scripts, frames or other content, in case a browser shows an answer as a page.
inline void SetSecurityFields(bhttp::fields& fields) {
  fields.set("Content-Security-Policy",
             "default-src 'self'; media-src 'self' blob:; base-uri 'none'; frame-ancestors 'none'; "
             "form-action 'self'");
  fields.set("X-Content-Type-Options", "nosniff");
  fields.set("Referrer-Policy", "no-referrer");
  fields.set("Cross-Origin-Resource-Policy", "same-origin");
  fields.set("Cache-Control", "no-store");
}

template <typename Body>
void SetFields(bhttp::response<Body>& response, const Answer& answer) {
  response.result(static_cast<unsigned>(answer.status));
  SetSecurityFields(response);
  response.set(bhttp::field::content_type, answer.contentType);
  for (const auto& [field, value] : answer.fields) {
    response.set(field, value);
  }
}

// One client that follows the events of a wall. Server's thread; only wake is called by others.
class Follower {
 public:
  // after: the last event that the client has; without it, or when later ones are no longer kept,
  // the client gets a snapshot first.
  Follower(HttpServer::Core& core, std::optional<std::uint64_t> after)
      : waking_(std::make_shared<asio::steady_timer>(core.loop())) {
    EventFeed& feed = core.api().control().events();
    wake_ = [mailbox = core.mailbox(), weak = std::weak_ptr(waking_)] {
      mailbox->Post([weak] {
        if (const auto waking = weak.lock()) {
          waking->cancel();
        }
      });
    };
    if (after) {
      events_ = feed.Subscribe(*after, core.limits().waiting, wake_);
    }
    while (!events_) {
      // Events before this number are in the snapshot, which is taken afterwards.
      snapshotNumber_ = feed.latest();
      events_ = feed.Subscribe(snapshotNumber_, core.limits().waiting, wake_);
    }
    if (snapshotNumber_) {
      snapshot_ = core.api().Snapshot(*snapshotNumber_);
    }
  }

  EventFeed::Subscription& events() { return *events_; }
  // The number of its last event, and its text; none when the client needs none.
  std::optional<std::pair<std::uint64_t, std::string>> TakeSnapshot() {
    if (!snapshotNumber_) {
      return std::nullopt;
    }
    return std::pair(*std::exchange(snapshotNumber_, std::nullopt), std::move(snapshot_));
  }
  // Waits until there is something to send; false when the limit is over first.
  asio::awaitable<bool> Wait(std::chrono::milliseconds limit) {
    error_code error;
    waking_->expires_after(limit);
    co_await waking_->async_wait(Into(error));
    co_return error == asio::error::operation_aborted;
  }
  void Wake() { waking_->cancel(); }
  // Wakes it from any thread, also when the follower no longer exists.
  const std::function<void()>& wake() const { return wake_; }
  // The client has disconnected.
  void End() {
    hasEnded_ = true;
    Wake();
  }
  bool hasEnded() const { return hasEnded_; }

 private:
  const std::shared_ptr<asio::steady_timer> waking_;
  std::function<void()> wake_;
  std::shared_ptr<EventFeed::Subscription> events_;
  std::optional<std::uint64_t> snapshotNumber_;
  std::string snapshot_;
  bool hasEnded_ = false;
};

using UpgradeRequest = bhttp::request<bhttp::string_body>;

// Serves a WebSocket to its end, for both kinds of streams: a snapshot, then events, and commands
// in the other direction. The client is disconnected with 1013 when more than the limits waits for
// it, and with 1003 when it sends anything but text.
template <typename Stream>
asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, Stream stream, UpgradeRequest request,
                                     Head head, Connections::Ticket ticket);

extern template asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, PlainStream stream,
                                                     UpgradeRequest request, Head head,
                                                     Connections::Ticket ticket);
extern template asio::awaitable<void> ServeWebSocket(HttpServer::Core& core, TlsStream stream,
                                                     UpgradeRequest request, Head head,
                                                     Connections::Ticket ticket);

}  // namespace host::control::http
