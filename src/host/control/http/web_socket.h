// A WebSocket: a snapshot, then events, and commands in the other direction.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include "host/control/http/core.h"
#include "host/control/http/response.h"

namespace host::control::http {

using UpgradeRequest = bhttp::request<bhttp::string_body>;

// To its end; for both kinds of streams. The client is disconnected with 1013 when more waits for
// it than it may, and with 1003 when it sends anything but text.
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
