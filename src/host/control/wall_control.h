// WallControl: the one owner of a running wall's state.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "host/config/wall.h"
#include "host/control/command.h"
#include "host/control/event_feed.h"
#include "host/control/wall_state.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host::control {

// A request: one command or a list, carried out as a whole or refused as a whole.
// NOLINTNEXTLINE(bugprone-exception-escape): to move a JSON value throws nothing
struct Request {
  nlohmann::json commands;
  std::string from;  // who asks, for messages: "socket", "10.0.0.7", "wall file"
  std::optional<std::uint64_t> ifVersion;  // only if the state has this version
};
// The result of an accepted request.
struct Accepted {
  std::uint64_t version = 0;  // of the state after it
  std::int64_t frame = 0;     // the first composed frame that shows all of it
  bool hasChanged = false;
  nlohmann::ordered_json more =
      nlohmann::ordered_json::object();  // of reload: what needs a restart, ...
};
using Result = std::variant<Accepted, CommandError>;

// Carries out changes of the state.
class WallExecutor {
 public:
  virtual ~WallExecutor() = default;
  // Changes the wall to the next state; called by the thread that runs the requests. Returns the
  // first composed frame that shows all of it.
  virtual std::int64_t Execute(const WallState& before, const WallState& next) = 0;
};

// All senders (wall file, HTTP, socket, tally, screens) put requests into one bounded queue. The
// application's thread carries them out one by one, on a copy of the state; when every command of
// the request succeeds, the copy becomes the state and the wall is changed to it.
class WallControl {
 public:
  struct Settings {
    std::filesystem::path wallFile;  // empty: none to reload or save to
    // What channels and outputs do at this moment, besides the state: merged into the channels of
    // the snapshot by their names. {"channels":{"A":{"state":"live",...}},"frames":...}
    std::function<nlohmann::ordered_json()> live;
    std::function<void(const std::string&)> say;  // a message for the log
  };
  static constexpr std::size_t kMaxWaiting = 64;

  // executor outlives it. The layout in which the wall begins is the first request.
  WallControl(const config::Wall& wall, WallExecutor& executor, Settings settings);

  // Any thread. done: called once, by the application's thread or, when too many requests wait or
  // the wall ends, by the calling one; it returns at once, and may be empty.
  void Submit(Request request, std::function<void(const Result&)> done);
  // The whole state with what channels and outputs do now. Any thread.
  nlohmann::ordered_json Snapshot() const;
  // The present state. Any thread.
  std::shared_ptr<const WallState> state() const;
  std::uint64_t version() const;
  EventFeed& events() { return events_; }
  // Requests by their result; reloads also by themselves. Any thread.
  struct Counters {
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> reloadsAccepted{0};
    std::atomic<std::uint64_t> reloadsRefused{0};
  };
  const Counters& counters() const { return counters_; }

  // Application's thread: carries out the requests that wait.
  void Run();
  // Signalled while requests wait.
  os::Event& waiting() { return waiting_; }
  // Refuses all requests, those that wait included.
  void Close();

 private:
  // NOLINTNEXTLINE(bugprone-exception-escape): see Request
  struct Waiting {
    Request request;
    std::function<void(const Result&)> done;
  };
  Result CarryOut(const Request& request);
  Accepted CarryOut(const Request& request, const WallState& before);
  void Report(const Request& request, const Result& result);
  config::Wall ReadWallFile() const;
  void SaveBook(const WallState& state) const;
  // Returns the wall that the file now describes. known: as it was last read.
  config::Wall SaveWall(const WallState& state, const config::Wall& known) const;
  void Say(const std::string& what) const;

  WallExecutor& executor_;
  const Settings settings_;
  EventFeed events_;
  Counters counters_;
  os::Event waiting_;
  config::Wall running_;  // as the file had it when it was last read; application's thread
  mutable os::Mutex lock_;
  std::shared_ptr<const WallState> state_ GUARDED_BY(lock_);
  std::deque<Waiting> queue_ GUARDED_BY(lock_);
  bool closed_ GUARDED_BY(lock_) = false;
};

}  // namespace host::control
