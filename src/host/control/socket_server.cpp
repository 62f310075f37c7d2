#include "host/control/socket_server.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace host::control {
namespace {

using Json = nlohmann::ordered_json;
using Kind = CommandError::Kind;

constexpr std::size_t kMaxUnsent = 262'144;  // bytes of answers, beyond which no request is read
constexpr std::size_t kMaxRequests = 16;     // of one client that wait for their results
constexpr std::chrono::milliseconds kAcceptPause{100};
// For a client that was dropped to read why.
constexpr std::chrono::milliseconds kRemovePeriod{5000};
constexpr int kMaxDepth = 16;  // of a request
constexpr const char* kTooLong = "a request has at most 1000000 bytes in its line";

// Throws CommandError.
nlohmann::json Parsed(const std::string& line) {
  if (line.size() > SocketServer::kMaxRequest) {
    throw CommandError(Kind::kMalformed, kTooLong);
  }
  // Depth is bounded before anything walks over the values.
  return nlohmann::json::parse(line, [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
    if (depth > kMaxDepth) {
      throw CommandError(Kind::kMalformed, "is nested too deeply");
    }
    return true;
  });
}

const char* NameOf(Kind kind) {
  switch (kind) {
    case Kind::kMalformed:
      return "malformed";
    case Kind::kUnknown:
      return "unknown";
    case Kind::kConflict:
      return "conflict";
    case Kind::kRestart:
      return "restart";
    case Kind::kStale:
      return "stale";
    case Kind::kBusy:
      return "busy";
    case Kind::kFailed:
      return "failed";
  }
  return "";
}

std::string LineOf(const Json& json) {
  return OneLine(json) + "\n";
}

Json Refusal(const Json& id, const CommandError& error) {
  Json what = {{"kind", NameOf(error.kind())}, {"detail", error.detail()}};
  if (!error.pointer().empty()) {
    what["pointer"] = error.pointer();
  }
  if (error.nearest()) {
    what["nearest"] = *error.nearest();
  }
  return {{"id", id}, {"ok", false}, {"error", std::move(what)}};
}

Json AnswerTo(const Json& id, const Result& result) {
  if (const auto* const error = std::get_if<CommandError>(&result)) {
    return Refusal(id, *error);
  }
  const auto& accepted = std::get<Accepted>(result);
  Json answer = {{"id", id},
                 {"ok", true},
                 {"version", accepted.version},
                 {"frame", accepted.frame},
                 {"changed", accepted.hasChanged}};
  if (!accepted.more.empty()) {
    answer["more"] = accepted.more;
  }
  return answer;
}

os::Socket Listen(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  return os::Socket::ListenLocal(path);
}

}  // namespace

// Used by the serving thread only, except the answers, which come from other threads.
class SocketServer::Clients : public std::enable_shared_from_this<Clients> {
 public:
  Clients(os::Socket listener, WallControl& control)
      : listener_(std::move(listener)), control_(control) {}

  // The serving thread, until Stop.
  void Run() {
    bool isPaused = false;  // nothing could be accepted: perhaps too many files are open
    while (!stopping_) {
      const bool isFull = clients_.size() >= kMaxClients;
      std::vector<os::SocketPoll::Item> items{{&listener_, !isFull && !isPaused}};
      for (auto& [number, client] : clients_) {
        items.push_back({&client.socket, client.MayRead(), !client.unsent.empty()});
      }
      poll_.Wait(items, isPaused ? kAcceptPause : kRemovePeriod);
      TakeAnswers();
      auto item = items.begin() + 1;
      for (auto client = clients_.begin(); client != clients_.end(); ++item) {
        client = Serve(client->first, client->second, *item) ? std::next(client)
                                                             : clients_.erase(client);
      }
      if (items.front().canReceive) {
        os::Socket socket = listener_.Accept();
        isPaused = !socket.IsValid();
        if (!isPaused) {
          clients_[++latest_].socket = std::move(socket);
        }
      } else {
        isPaused = false;
      }
    }
  }

  void Stop() {
    stopping_ = true;
    poll_.Wake();
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct Client {
    os::Socket socket;
    std::string received;
    std::string unsent;
    std::size_t requests = 0;  // that have no result yet
    bool isEnding = false;     // once everything is sent
    // When it is removed though it has not read everything.
    std::optional<Clock::time_point> removedAt{};
    std::shared_ptr<EventFeed::Subscription> events;

    bool HasLine() const { return received.find('\n') != std::string::npos; }
    // From a client that does not read its answers nothing more is read.
    bool MayAsk() const { return unsent.size() < kMaxUnsent && requests < kMaxRequests; }
    bool MayRead() const { return !isEnding && !HasLine(); }
  };

  // False when the client is to be removed.
  bool Serve(std::uint64_t number, Client& client, const os::SocketPoll::Item& item) {
    if (item.canReceive) {
      Read(client);
    } else if (item.hasEnded) {
      return false;
    }
    for (std::size_t end = 0;
         client.MayAsk() && (end = client.received.find('\n')) != std::string::npos;) {
      const std::string line = client.received.substr(0, end);
      client.received.erase(0, end + 1);
      Handle(number, client, line);
    }
    if (!client.isEnding && !client.HasLine() && client.received.size() > kMaxRequest) {
      client.unsent += LineOf(Refusal(nullptr, CommandError(Kind::kMalformed, kTooLong)));
      client.isEnding = true;
    }
    TakeEvents(client);
    if (!client.unsent.empty()) {
      const std::optional<std::size_t> sent = client.socket.Send(client.unsent);
      if (!sent) {
        return false;
      }
      client.unsent.erase(0, *sent);
    }
    if (client.removedAt && Clock::now() >= *client.removedAt) {
      return false;
    }
    const bool isDone = client.unsent.empty() && client.requests == 0 && !client.HasLine();
    return !(client.isEnding && isDone);
  }

  // Any thread: a result for a client, if it is still there.
  void Answer(std::uint64_t client, std::string line) {
    {
      const os::MutexLock guard(lock_);
      answers_.emplace_back(client, std::move(line));
    }
    poll_.Wake();
  }

  // At most one for each request of WallControl's queue and of this machine's clients.
  void TakeAnswers() {
    std::deque<std::pair<std::uint64_t, std::string>> answers;
    {
      const os::MutexLock guard(lock_);
      answers.swap(answers_);
    }
    for (auto& [number, line] : answers) {
      if (const auto client = clients_.find(number); client != clients_.end()) {
        --client->second.requests;
        client->second.unsent += line;
      }
    }
  }

  static void Read(Client& client) {
    std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    const std::optional<std::size_t> count = client.socket.Receive(buffer);
    if (count == 0) {
      client.isEnding = true;  // no further requests; those it has sent are answered
    } else if (count) {
      client.received.append(buffer.data(), *count);
    }
  }

  void Handle(std::uint64_t number, Client& client, const std::string& line) {
    Json id;
    try {
      nlohmann::json request = Parsed(line);
      if (!request.is_object()) {
        throw CommandError(Kind::kMalformed,
                           "must be an object of JSON in a line: {\"commands\": [...]}, {\"get\": "
                           "\"wall\"} or {\"watch\": true}");
      }
      if (const auto given = request.find("id"); given != request.end()) {
        id = given->is_primitive() ? Json(*given) : Json();
      }
      if (request.contains("commands")) {
        Submit(number, client, id, request);
      } else if (request.contains("get")) {
        client.unsent += LineOf(Get(id, request["get"]));
      } else if (request.contains("watch") && request["watch"] == true) {
        // First the events, then the state: no event in between is missed.
        client.events = control_.events().Subscribe({}, {}, [self = weak_from_this()] {
          if (const auto clients = self.lock()) {
            clients->poll_.Wake();
          }
        });
        client.unsent += LineOf({{"id", id}, {"ok", true}, {"wall", control_.Snapshot()}});
      } else {
        throw CommandError(Kind::kMalformed, "has none of \"commands\", \"get\" and \"watch\"");
      }
    } catch (const CommandError& error) {
      client.unsent += LineOf(Refusal(id, error));
    } catch (const std::exception& error) {
      client.unsent += LineOf(Refusal(id, CommandError(Kind::kMalformed, error.what())));
    }
  }

  void Submit(std::uint64_t number, Client& client, const Json& id, nlohmann::json& request) {
    Request submitted{std::move(request["commands"]), "socket", {}};
    if (request.contains("from") && request["from"].is_string()) {
      submitted.from = "socket: " + request["from"].get<std::string>().substr(0, 64);
    }
    if (const auto version = request.find("if_version"); version != request.end()) {
      if (!version->is_number_unsigned()) {
        throw CommandError(Kind::kMalformed, "must be a version of the wall", "/if_version");
      }
      submitted.ifVersion = version->get<std::uint64_t>();
    }
    ++client.requests;
    control_.Submit(std::move(submitted),
                    [self = shared_from_this(), number, id](const Result& result) {
                      self->Answer(number, LineOf(AnswerTo(id, result)));
                    });
  }

  Json Get(const Json& id, const Json& what) const {
    if (what == "wall") {
      return {{"id", id}, {"ok", true}, {"wall", control_.Snapshot()}};
    }
    throw CommandError(Kind::kUnknown, "there is nothing to get but \"wall\"", "/get");
  }

  static void TakeEvents(Client& client) {
    if (client.events == nullptr || client.isEnding) {
      return;
    }
    if (client.events->isDropped()) {
      client.unsent += "{\"dropped\":true}\n";
      client.isEnding = true;
      client.removedAt = Clock::now() + kRemovePeriod;
    } else if (client.unsent.empty()) {
      // Until these are sent, later ones wait in the feed, which limits them.
      for (const EventFeed::Event& event : client.events->Take()) {
        client.unsent +=
            "{\"number\":" + std::to_string(event.number) + ",\"event\":" + *event.line + "}\n";
      }
    }
  }

  os::Socket listener_;
  WallControl& control_;
  os::SocketPoll poll_;
  std::atomic<bool> stopping_{false};
  std::map<std::uint64_t, Client> clients_;  // by number, in the order in which they came
  std::uint64_t latest_ = 0;
  os::Mutex lock_;
  std::deque<std::pair<std::uint64_t, std::string>> answers_ GUARDED_BY(lock_);
};

SocketServer::SocketServer(const std::filesystem::path& path, WallControl& control)
    : path_(path), clients_(std::make_shared<Clients>(Listen(path), control)) {
  thread_ = std::make_unique<os::Thread>([clients = clients_] { clients->Run(); }, "socket");
}

SocketServer::~SocketServer() {
  clients_->Stop();
  thread_->Wait(os::kInfinite);
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

std::filesystem::path UsualSocket(const std::filesystem::path& wallFile) {
  return os::RuntimeFolder("tavrel") / (wallFile.stem().string() + ".sock");
}

}  // namespace host::control
