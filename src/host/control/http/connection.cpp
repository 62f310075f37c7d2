// One connection: requests one after another, or a client that follows the events.
#include "host/control/http/connection.h"

#include <array>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "host/control/http/core.h"

namespace host::control::http {

namespace {

using Parser = bhttp::request_parser<bhttp::string_body>;

constexpr std::size_t kReadSize = 4096;             // minimum of bytes read before a header
constexpr std::chrono::milliseconds kLinger{2000};  // while a client may still be sending
constexpr std::size_t kMaxIgnored = 4 << 20;        // bytes, likewise
constexpr std::chrono::milliseconds kBetweenPictures{200};
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

// The answer to a request that cannot be read; none when nobody would read the answer.
std::optional<Problem> RefusalOf(const error_code& error, const HttpServer::Limits& limits) {
  using Error = bhttp::error;
  if (error == Error::body_limit) {
    return Problem(413, "too-large", "The body is too large",
                   "a body has " + std::to_string(limits.bodyBytes) + " bytes at most");
  }
  if (error == Error::header_limit || error == Error::buffer_overflow) {
    return Problem(431, "too-large", "The header is too large",
                   "a header has " + std::to_string(limits.headerBytes) + " bytes at most");
  }
  if (error == Error::end_of_stream || error == Error::partial_message ||
      error.category() != error_code(make_error_code(Error::bad_method)).category()) {
    return std::nullopt;
  }
  return Problem(400, "malformed-request", "The request is malformed", error.message());
}

Head HeadOf(const Parser& parser, const asio::ip::tcp::socket& socket) {
  using Field = bhttp::field;
  const auto& request = parser.get();
  const std::string target(request.target());
  Head head;
  head.method = std::string(request.method_string());
  const std::size_t question = target.find('?');
  head.path = target.substr(0, question);
  head.query = question == std::string::npos ? "" : target.substr(question + 1);
  const auto text = [&](Field field) { return std::string(request[field]); };
  head.host = text(Field::host);
  head.origin = text(Field::origin);
  head.fetchSite = std::string(request["Sec-Fetch-Site"]);
  head.authorization = text(Field::authorization);
  head.cookie = text(Field::cookie);
  head.contentType = text(Field::content_type);
  head.ifMatch = text(Field::if_match);
  head.ifNoneMatch = text(Field::if_none_match);
  head.lastEventId = std::string(request["Last-Event-ID"]);
  head.hasOneHost = request.count(Field::host) == 1;
  head.hasBody = parser.chunked() || parser.content_length().value_or(0) > 0;
  head.isUpgrade = boost::beast::websocket::is_upgrade(request);
  error_code ignored;
  head.peer = Plain(socket.remote_endpoint(ignored).address()).to_string();
  head.local = Plain(socket.local_endpoint(ignored).address()).to_string();
  return head;
}

// Before the body is read.
void CheckBody(const Head& head, const Route& route) {
  if (!head.hasBody) {
    return;
  }
  if (route.body == Route::Body::kNone) {
    throw Problem(400, "malformed-request", "The request is malformed",
                  "this request takes no body");
  }
  if (!EqualsIgnoringCase(head.contentType.substr(0, head.contentType.find(';')),
                          "application/json")) {
    throw Problem(415, "content-type", "The body has another type",
                  "a body is JSON and says so: \"Content-Type: application/json\"");
  }
}

// The answer that needs no body of the request, if any.
std::optional<Answer> Look(HttpServer::Core& core, const Head& head, Match& match) {
  try {
    match = FindRoute(head);
    core.access().Check(head, *match.route);
    CheckBody(head, *match.route);
    if (match.route->what == Route::What::kWebSocket && !head.isUpgrade) {
      throw Problem(426, "upgrade", "This is a WebSocket", "open it as a WebSocket")
          .With("Upgrade", "websocket");
    }
    return std::nullopt;
  } catch (const Problem& problem) {
    return problem.ToAnswer();
  }
}

template <typename Stream>
class Connection {
 public:
  Connection(HttpServer::Core& core, std::shared_ptr<Stream> stream, Connections::Ticket ticket)
      : core_(core), stream_(std::move(stream)), ticket_(std::move(ticket)) {}

  // False when the stream has been handed over and no longer belongs to this connection.
  asio::awaitable<bool> Serve() {
    boost::beast::flat_buffer buffer(core_.limits().headerBytes + core_.limits().bodyBytes);
    while (co_await ServeRequest(buffer)) {
    }
    co_return !isHandedOn_;
  }

 private:
  auto& lowest() { return boost::beast::get_lowest_layer(*stream_); }

  // False when the connection ends with it.
  asio::awaitable<bool> ServeRequest(boost::beast::flat_buffer& buffer) {
    const HttpServer::Limits& limits = core_.limits();
    error_code error;
    ticket_->SetIdle(true);
    if (buffer.size() == 0) {
      lowest().expires_after(limits.idle);
      const std::size_t count =
          co_await stream_->async_read_some(buffer.prepare(kReadSize), Into(error));
      if (error) {
        co_return false;
      }
      buffer.commit(count);
    }
    Parser parser;
    parser.header_limit(static_cast<std::uint32_t>(limits.headerBytes));
    parser.body_limit(limits.bodyBytes);
    lowest().expires_after(limits.header);
    co_await bhttp::async_read_header(*stream_, buffer, parser, Into(error));
    ticket_->SetIdle(false);
    if (error) {
      co_await Refuse(error);
      co_return false;
    }
    Head head = HeadOf(parser, lowest().socket());
    head.isTls = std::is_same_v<Stream, TlsStream>;
    Match match;
    std::optional<Answer> answer = Look(core_, head, match);
    if (answer) {
      const bool keeps = parser.keep_alive() && !head.hasBody;
      co_await Write(*answer, keeps, head.method == "HEAD");
      if (head.hasBody) {
        co_await Linger();
      }
      co_return keeps;
    }
    if (match.route->what == Route::What::kEvents) {
      co_await SendEvents(head);
      co_return false;
    }
    if (match.route->what == Route::What::kPictures) {
      co_await SendPictures(head.method == "HEAD");
      co_return false;
    }
    if (match.route->what == Route::What::kWebSocket) {
      isHandedOn_ = true;
      co_await ServeWebSocket(core_, std::move(*stream_), parser.release(), head, ticket_);
      co_return false;
    }
    if (head.hasBody) {
      lowest().expires_after(limits.body);
      if (EqualsIgnoringCase(std::string(parser.get()[bhttp::field::expect]), "100-continue")) {
        co_await asio::async_write(*stream_, asio::buffer(kContinue), Into(error));
      }
      co_await bhttp::async_read(*stream_, buffer, parser, Into(error));
      if (error) {
        co_await Refuse(error);
        co_return false;
      }
    }
    const Answer served = co_await core_.Respond(match, head, parser.get().body());
    co_return co_await Write(served, parser.keep_alive(), head.method == "HEAD");
  }

  asio::awaitable<void> Refuse(const error_code& error) {
    if (const std::optional<Problem> refusal = RefusalOf(error, core_.limits())) {
      co_await Write(refusal->ToAnswer(), false, false);
      co_await Linger();
    }
  }

  // False when the connection ends with it.
  asio::awaitable<bool> Write(Answer answer, bool keepAlive, bool isHead) {
    error_code error;
    lowest().expires_after(core_.limits().write);
    bhttp::response<bhttp::string_body> response;
    SetFields(response, answer);
    response.keep_alive(keepAlive);
    const std::size_t size = answer.body.size();
    const bool hasBody = answer.status != 304;
    if (hasBody && !isHead) {
      response.body() = std::move(answer.body);
    }
    if (hasBody) {
      response.content_length(size);
    }
    bhttp::response_serializer<bhttp::string_body> serializer(response);
    if (isHead || !hasBody) {
      co_await bhttp::async_write_header(*stream_, serializer, Into(error));
    } else {
      co_await bhttp::async_write(*stream_, serializer, Into(error));
    }
    co_return !error && keepAlive;
  }

  // A client that is still sending gets the answer only if its bytes are read for a while.
  asio::awaitable<void> Linger() {
    error_code error;
    lowest().socket().shutdown(asio::ip::tcp::socket::shutdown_send, error);
    lowest().expires_after(kLinger);
    std::array<char, 4096> ignored;
    for (std::size_t total = 0; !error && total < kMaxIgnored;) {
      const std::size_t count =
          co_await lowest().async_read_some(asio::buffer(ignored), Into(error));
      total += count;
    }
  }

  asio::awaitable<void> SendEvents(const Head& head) {
    error_code error;
    Answer answer;
    answer.contentType = "text/event-stream";
    bhttp::response<bhttp::empty_body> response;
    SetFields(response, answer);
    response.keep_alive(false);
    bhttp::response_serializer<bhttp::empty_body> serializer(response);
    lowest().expires_after(core_.limits().write);
    co_await bhttp::async_write_header(*stream_, serializer, Into(error));
    if (error || head.method == "HEAD") {
      co_return;
    }
    std::uint64_t after = 0;
    const std::string& id = head.lastEventId;
    const bool hasId =
        !id.empty() &&
        std::from_chars(id.data(), id.data() + id.size(), after).ptr == id.data() + id.size();
    const auto follower =
        std::make_shared<Follower>(core_, hasId ? std::optional(after) : std::nullopt);
    lowest().expires_never();
    asio::co_spawn(core_.loop(), WatchForEnd(stream_, follower), asio::detached);
    while (!follower->hasEnded()) {
      std::string text;
      if (const auto snapshot = follower->TakeSnapshot()) {
        text = EventText(snapshot->first, snapshot->second);
      }
      const bool isDropped = follower->events().isDropped();
      if (isDropped) {
        text += "data: {\"event\":\"dropped\"}\n\n";
      }
      for (const EventFeed::Event& event : follower->events().Take()) {
        text += EventText(event.number, Api::Numbered(event));
      }
      if (text.empty()) {
        if (co_await follower->Wait(core_.limits().keepAlive)) {
          continue;
        }
        text = ":\n\n";
      }
      lowest().expires_after(core_.limits().write);
      co_await asio::async_write(*stream_, asio::buffer(text), Into(error));
      if (error || isDropped) {
        break;
      }
    }
    lowest().close();
  }

  // If there is no first picture, the answer is a problem; later, a missing one ends the stream.
  asio::awaitable<void> SendPictures(bool isHead) {
    std::optional<Problem> problem;
    Snapshots::Picture last;
    asio::steady_timer pause(core_.loop());
    for (error_code error; !error && !problem;) {
      pause.expires_after(kBetweenPictures);
      Snapshots::Picture picture;
      try {
        if (core_.preview() == nullptr) {
          throw Problem::NoPreview();
        }
        picture = co_await core_.TakePicture({std::nullopt, true});
      } catch (const Problem& what) {
        problem = what;
        break;
      }
      lowest().expires_after(core_.limits().write);
      if (!last) {
        bhttp::response<bhttp::empty_body> response;
        SetFields(response, {.contentType = "multipart/x-mixed-replace; boundary=picture"});
        response.keep_alive(false);
        bhttp::response_serializer<bhttp::empty_body> serializer(response);
        co_await bhttp::async_write_header(*stream_, serializer, Into(error));
      }
      if (error || isHead) {
        break;
      }
      const std::string fields = "--picture\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                 std::to_string(picture->size()) + "\r\n\r\n";
      if (picture != last) {
        const std::array part{asio::buffer(fields), asio::buffer(*picture), asio::buffer(kLineEnd)};
        co_await asio::async_write(*stream_, part, Into(error));
        last = picture;
      }
      error_code ignored;
      co_await pause.async_wait(Into(ignored));
    }
    if (problem && !last) {
      co_await Write(problem->ToAnswer(), false, isHead);
    }
    lowest().close();
  }

  static std::string EventText(std::uint64_t number, const std::string& line) {
    return "id: " + std::to_string(number) + "\ndata: " + line + "\n\n";
  }

  // Ignores what the client sends, and ends the follower when the client disconnects.
  static asio::awaitable<void> WatchForEnd(std::shared_ptr<Stream> stream,
                                           std::shared_ptr<Follower> follower) {
    error_code error;
    std::array<char, 512> ignored;
    while (!error) {
      co_await stream->async_read_some(asio::buffer(ignored), Into(error));
    }
    follower->End();
  }

  HttpServer::Core& core_;
  const std::shared_ptr<Stream> stream_;
  const Connections::Ticket ticket_;
  bool isHandedOn_ = false;
};

template <typename Stream>
void CloseWithTicket(Connections::Entry& ticket, const std::shared_ptr<Stream>& stream) {
  ticket.close = [weak = std::weak_ptr(stream)] {
    if (const auto open = weak.lock()) {
      boost::beast::get_lowest_layer(*open).close();
    }
  };
}

}  // namespace

asio::awaitable<void> ServeConnection(HttpServer::Core& core, asio::ip::tcp::socket socket,
                                      asio::ssl::context* tls, Connections::Ticket ticket) {
  if (tls == nullptr) {
    const auto stream = std::make_shared<PlainStream>(std::move(socket));
    CloseWithTicket(*ticket, stream);
    Connection<PlainStream> connection(core, stream, ticket);
    co_await connection.Serve();
    co_return;
  }
  const auto stream = std::make_shared<TlsStream>(std::move(socket), *tls);
  CloseWithTicket(*ticket, stream);
  error_code error;
  auto& lowest = boost::beast::get_lowest_layer(*stream);
  lowest.expires_after(core.limits().header);
  co_await stream->async_handshake(asio::ssl::stream_base::server, Into(error));
  if (error) {
    co_return;
  }
  Connection<TlsStream> connection(core, stream, ticket);
  const bool isOwn = co_await connection.Serve();
  if (isOwn && lowest.socket().is_open()) {
    lowest.expires_after(kLinger);
    co_await stream->async_shutdown(Into(error));
  }
}

}  // namespace host::control::http
