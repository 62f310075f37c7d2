#include "host/control/http/http_server.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>

#include "host/control/http/core.h"
#include "host/control/http/page_files.h"
#include "host/control/http/viewer.h"

namespace host::control::http {

namespace {

using asio::ip::tcp;

constexpr std::chrono::milliseconds kAcceptPause{100};  // after a failure, as without descriptors
constexpr std::uint32_t kEndLimit = 1000;               // milliseconds

std::string TextOf(const config::Endpoint& endpoint, std::uint16_t port) {
  const bool isV6 = endpoint.host.find(':') != std::string::npos;
  return (isV6 ? "[" + endpoint.host + "]" : endpoint.host) + ":" + std::to_string(port);
}

// What counts as one client: an IPv4 address, or an IPv6 /64 network, which one machine may own.
std::string CountedAs(const asio::ip::address& address) {
  if (address.is_v4()) {
    return address.to_string();
  }
  asio::ip::address_v6::bytes_type bytes = address.to_v6().to_bytes();
  std::fill(bytes.begin() + 8, bytes.end(), std::uint8_t{0});
  return asio::ip::address_v6(bytes).to_string();
}

asio::ssl::context MakeTls(const config::Http& http) {
  asio::ssl::context tls(asio::ssl::context::tls_server);
  tls.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                  asio::ssl::context::no_tlsv1_1 | asio::ssl::context::no_compression);
  error_code error;
  tls.use_certificate_chain_file(http.certificate.string(), error);
  if (error) {
    throw std::runtime_error("the certificate " + http.certificate.string() +
                             " cannot be used: " + error.message());
  }
  tls.use_private_key_file(http.key.string(), asio::ssl::context::pem, error);
  if (error) {
    throw std::runtime_error("the key " + http.key.string() +
                             " cannot be used with the certificate: " + error.message());
  }
  SSL_CTX_set_mode(tls.native_handle(), SSL_MODE_RELEASE_BUFFERS);
  return tls;
}

// The file, or 304 when the client has it; without a name the page itself. Throws Problem 404.
Answer PageAnswer(const std::string& name, const Head& head) {
  const std::string wanted = name.empty() ? "index.html" : name;
  const std::span<const PageFile> files = PageFiles();
  const auto file = std::find_if(files.begin(), files.end(),
                                 [&](const PageFile& one) { return one.name == wanted; });
  if (file == files.end()) {
    throw Problem(404, "unknown-path", "There is nothing here",
                  "the page has no file \"" + wanted + "\"");
  }
  Answer answer;
  answer.contentType = file->type;
  // Another version of the program may have other files: the browser asks every time.
  answer.fields = {{"ETag", std::string(file->tag)}, {"Cache-Control", "no-cache"}};
  if (head.ifNoneMatch.find(file->tag) != std::string::npos) {
    answer.status = 304;
  } else {
    answer.body = file->content;
  }
  return answer;
}

}  // namespace

HttpServer::HttpServer(Settings settings, WallControl& control)
    : core_(std::make_unique<Core>(std::move(settings), control)), url_(core_->url()) {}

HttpServer::~HttpServer() = default;

HttpServer::Core::Core(Settings serverSettings, WallControl& control)
    : settings_(std::move(serverSettings)),
      access_(settings_.http),
      api_(control),
      connections_(limits().connections, limits().fromOneAddress),
      mailbox_(std::make_shared<Mailbox>(
          [this](Mailbox::Work work) { asio::post(loop_, std::move(work)); })),
      snapshots_(settings_.snapshot, mailbox_),
      loop_(1) {
  if (!settings_.http.certificate.empty()) {
    tls_.emplace(MakeTls(settings_.http));
  }
  history_ = std::make_unique<History>(control.events(), [this, mailbox = mailbox_] {
    mailbox->Post([this] { history_->Collect(); });
  });
  Listen();
  asio::co_spawn(loop_, Accept(), asio::detached);
  thread_ = std::make_unique<os::Thread>([this] { loop_.run(); }, "http");
}

HttpServer::Core::~Core() {
  mailbox_->Post([this] {
    acceptor_->close();
    connections_.CloseAll();
  });
  if (!thread_->Wait(kEndLimit)) {
    loop_.stop();
    thread_->Wait(os::kInfinite);
  }
  mailbox_->Close();
}

void HttpServer::Core::Listen() {
  if (!settings_.http.listen) {
    throw std::runtime_error("the HTTP server has no address");
  }
  const config::Endpoint& listen = *settings_.http.listen;
  error_code error;
  const auto address = asio::ip::make_address(listen.host, error);
  const tcp::endpoint endpoint(address, listen.port);
  const auto then = [&](auto step) {
    if (!error) {
      step();
    }
  };
  acceptor_.emplace(loop_);
  then([&] { acceptor_->open(endpoint.protocol(), error); });
  then([&] { acceptor_->set_option(tcp::acceptor::reuse_address(true), error); });
  then([&] { acceptor_->bind(endpoint, error); });
  then([&] { acceptor_->listen(asio::socket_base::max_listen_connections, error); });
  if (error) {
    throw std::runtime_error("cannot listen on " + TextOf(listen, listen.port) + ": " +
                             error.message());
  }
}

std::string HttpServer::Core::url() const {
  return (tls_ ? "https://" : "http://") +
         TextOf(*settings_.http.listen, acceptor_->local_endpoint().port());
}

asio::awaitable<void> HttpServer::Core::Accept() {
  asio::steady_timer pause(loop_);
  while (acceptor_->is_open()) {
    error_code error;
    tcp::socket socket = co_await acceptor_->async_accept(Into(error));
    if (!error) {
      Begin(std::move(socket));
    } else if (acceptor_->is_open()) {
      pause.expires_after(kAcceptPause);
      co_await pause.async_wait(Into(error));
    }
  }
}

void HttpServer::Core::Begin(tcp::socket socket) {
  error_code error;
  const tcp::endpoint peer = socket.remote_endpoint(error);
  Connections::Ticket ticket =
      error ? nullptr : connections_.Admit(CountedAs(Plain(peer.address())));
  if (!ticket) {
    return;
  }
  socket.set_option(tcp::no_delay(true), error);
  socket.set_option(asio::socket_base::keep_alive(true), error);
  asio::co_spawn(
      loop_, ServeConnection(*this, std::move(socket), tls_ ? &*tls_ : nullptr, std::move(ticket)),
      [this](const std::exception_ptr& failure) {
        try {
          if (failure) {
            std::rethrow_exception(failure);
          }
        } catch (const std::exception& what) {
          if (settings_.say) {
            settings_.say(std::string("HTTP: a connection ended: ") + what.what());
          }
        }
      });
}

asio::awaitable<std::optional<Result>> HttpServer::Core::Submit(Request request) {
  struct Pending {
    asio::steady_timer deadline;
    std::optional<Result> result;
  };
  const auto pending = std::make_shared<Pending>(Pending{asio::steady_timer(loop_), {}});
  pending->deadline.expires_after(limits().answer);
  api_.control().Submit(std::move(request),
                        [mailbox = mailbox_, weak = std::weak_ptr(pending)](const Result& result) {
                          mailbox->Post([weak, result] {
                            if (const auto waiting = weak.lock()) {
                              waiting->result = result;
                              waiting->deadline.cancel();
                            }
                          });
                        });
  error_code ended;
  co_await pending->deadline.async_wait(Into(ended));
  co_return std::move(pending->result);
}

asio::awaitable<Snapshots::Picture> HttpServer::Core::TakePicture(Snapshots::View view) {
  struct Pending {
    asio::steady_timer deadline;
    Snapshots::Picture picture;
  };
  const auto pending = std::make_shared<Pending>(Pending{asio::steady_timer(loop_), {}});
  pending->deadline.expires_after(limits().answer);
  snapshots_.Get(view, [this, weak = std::weak_ptr(pending)](Snapshots::Picture picture) {
    // Queued, because it may be called before the wait begins.
    asio::post(loop_, [weak, picture = std::move(picture)] {
      if (const auto waiting = weak.lock()) {
        waiting->picture = picture;
        waiting->deadline.cancel();
      }
    });
  });
  error_code ended;
  co_await pending->deadline.async_wait(Into(ended));
  if (!pending->picture) {
    throw Problem(503, "no-frame", "There is no frame", "the wall has composed no frame in time")
        .With("Retry-After", "1");
  }
  co_return pending->picture;
}

Answer HttpServer::Core::Metrics() const {
  MetricsText text;
  if (settings_.monitoring.metrics) {
    settings_.monitoring.metrics(text);
  }
  WallControl& control = api_.control();
  const WallControl::Counters& requests = control.counters();
  text.Counter("tavrel_requests_total", "Requests to change the wall, by what became of them.");
  text.Add(requests.accepted, {{"result", "accepted"}});
  text.Add(requests.refused, {{"result", "refused"}});
  text.Counter("tavrel_reloads_total", "Reloads of the wall file, by what became of them.");
  text.Add(requests.reloadsAccepted, {{"result", "accepted"}});
  text.Add(requests.reloadsRefused, {{"result", "refused"}});
  text.Gauge("tavrel_state_version", "Version of the wall's state.");
  text.Add(control.version());
  text.Gauge("tavrel_http_connections", "Connections that are open.");
  text.Add(std::uint64_t{connections_.count()});
  text.Gauge("tavrel_followers", "Clients that follow the events of the wall.");
  // The history of the last day is one of them, but not a client.
  // The history is one of them, but for a moment when it was dropped.
  text.Add(std::uint64_t{std::max<std::size_t>(control.events().clients(), 1)} - 1);
  text.Counter("tavrel_followers_dropped_total", "Followers that were too slow.");
  text.Add(control.events().dropped());
  return {.contentType = MetricsText::kContentType, .body = text.text()};
}

Answer HttpServer::Core::Health(Route::What what) const {
  const bool isLive = what == Route::What::kLive;
  const auto& whyNot = isLive ? settings_.monitoring.whyNotAlive : settings_.monitoring.whyNotReady;
  if (const std::string why = whyNot ? whyNot() : ""; !why.empty()) {
    throw Problem(503, isLive ? "not-alive" : "not-ready",
                  isLive ? "The wall is not alive" : "The wall is not ready", why)
        .With("Retry-After", "1");
  }
  return {.contentType = "text/plain; charset=utf-8", .body = "ok\n"};
}

Answer HttpServer::Core::Session(const Match& match, const Head& head, const std::string& body) {
  const auto answer = [&](std::optional<Role> role) {
    nlohmann::ordered_json json;
    json["role"] = role ? nlohmann::ordered_json(role == Role::kView ? "view" : "operate")
                        : nlohmann::ordered_json();
    json["asks_for_token"] = access_.asksForToken();
    return Answer{.body = OneLine(json)};
  };
  if (match.route->what == Route::What::kSession || !access_.asksForToken()) {
    return answer(access_.RoleOf(head));
  }
  if (match.route->what == Route::What::kEndSession) {
    Answer ended = answer(std::nullopt);
    ended.fields.emplace_back("Set-Cookie", access_.EndSession(head));
    return ended;
  }
  const std::string token = Api::TokenIn(body);
  const std::string cookie = access_.BeginSession(head, token);
  Answer begun = answer(access_.RoleOfToken(token));
  begun.fields.emplace_back("Set-Cookie", cookie);
  return begun;
}

asio::awaitable<Answer> HttpServer::Core::Respond(const Match& match, const Head& head,
                                                  const std::string& body) {
  try {
    using What = Route::What;
    switch (match.route->what) {
      case What::kSnapshot: {
        const Snapshots::Picture picture = co_await TakePicture({api_.WindowFor(head.query)});
        co_return Answer{.contentType = "image/jpeg", .body = *picture};
      }
      case What::kMetrics:
        co_return Metrics();
      case What::kLive:
      case What::kReady:
        co_return Health(match.route->what);
      case What::kPage:
        co_return PageAnswer(match.name, head);
      case What::kSession:
      case What::kBeginSession:
      case What::kEndSession:
        co_return Session(match, head, body);
      case What::kHistory: {
        const auto before = Api::BeforeIn(head.query);
        co_return Answer{.body = before ? history_->Json(*before) : history_->Json()};
      }
      default:
        break;  // reads or changes the state
    }
    if (!match.route->changes()) {
      co_return api_.Read(match, head);
    }
    const std::optional<Result> result = co_await Submit(api_.RequestOf(match, head, body));
    if (!result) {
      throw Problem(504, "late", "The wall did not answer",
                    "the wall has not carried out the request in time; it may still do so");
    }
    co_return api_.AnswerOf(match, *result);
  } catch (const Problem& problem) {
    co_return problem.ToAnswer();
  } catch (const std::exception& error) {
    co_return Problem(500, "failed", "The request failed", error.what()).ToAnswer();
  }
}

asio::awaitable<std::string> HttpServer::Core::Reply(const std::string& text, const Head& head,
                                                     Viewer& viewer) {
  nlohmann::json id;
  try {
    nlohmann::json json = Api::Parse(text);
    id = json.is_object() ? json.value("id", nlohmann::json()) : nlohmann::json();
    if (Viewer::IsFor(json)) {
      co_return Api::ReplyTo(id, viewer.Take(json));
    }
    Request request = Api::RequestOf(std::move(json), head.peer);
    if (access_.RoleOf(head) != Role::kOperate) {
      throw Problem(403, "role", "The token may only look",
                    "changing the wall needs a token of the role \"operate\"");
    }
    const std::optional<Result> result = co_await Submit(std::move(request));
    if (!result) {
      throw Problem(504, "late", "The wall did not answer",
                    "the wall has not carried out the request in time; it may still do so");
    }
    co_return Api::ReplyTo(id, *result);
  } catch (const Problem& problem) {
    co_return Api::ReplyTo(id, problem);
  } catch (const std::exception& error) {
    co_return Api::ReplyTo(id, Problem(500, "failed", "The request failed", error.what()));
  }
}

}  // namespace host::control::http
