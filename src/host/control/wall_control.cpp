#include "host/control/wall_control.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "host/config/wall_file.h"
#include "host/control/saved_wall.h"
#include "host/ffmpeg/mask.h"

namespace host::control {
namespace {

using Json = nlohmann::ordered_json;
using Kind = CommandError::Kind;

// Every mistake of the file in a line of its own, with line and column.
CommandError MistakesOf(const config::WallFile& file, const std::filesystem::path& path) {
  std::string text;
  for (const config::Diagnostic& diagnostic : file.diagnostics.all()) {
    if (diagnostic.severity == config::Diagnostic::Severity::kError) {
      text += (text.empty() ? "" : "\n") + config::ToText(diagnostic, path.string());
    }
  }
  return {Kind::kMalformed, text};
}

// For clients that only watch: a source's address and options may contain passwords.
nlohmann::json WithoutSecrets(nlohmann::json commands) {
  const auto mask = [](nlohmann::json& command) {
    if (const auto source = command.find("source");
        source != command.end() && source->is_string()) {
      *source = ffmpeg::MaskUrl(source->get<std::string>());
    }
    if (const auto options = command.find("options");
        options != command.end() && options->is_object()) {
      for (nlohmann::json& value : *options) {
        value = "***";
      }
    }
  };
  if (commands.is_array()) {
    std::for_each(commands.begin(), commands.end(), mask);
  } else {
    mask(commands);
  }
  return commands;
}

bool HasReload(const nlohmann::json& commands) {
  const auto isReload = [](const nlohmann::json& command) {
    const auto name = command.find("command");
    return name != command.end() && *name == "reload";
  };
  return commands.is_array() ? std::any_of(commands.begin(), commands.end(), isReload)
                             : isReload(commands);
}

}  // namespace

WallControl::WallControl(const config::Wall& wall, WallExecutor& executor, Settings settings)
    : executor_(executor),
      settings_(std::move(settings)),
      waiting_(os::Event::Reset::kAuto),
      running_(wall) {
  WallState state = WallState::Of(wall);
  if (!settings_.wallFile.empty()) {
    const LayoutBook book(settings_.wallFile);
    try {
      state.saved = book.Read(state.canvas);
      // The wall file's own layouts take precedence.
      state.layouts.insert(state.saved.begin(), state.saved.end());
      std::erase_if(state.saved,
                    [&](const auto& one) { return state.layouts.at(one.first) != one.second; });
    } catch (const CommandError& error) {
      Say(error.detail() + "; the wall goes on without its saved layouts");
    }
  }
  const std::string layout = state.layout;
  state_ = std::make_shared<const WallState>(std::move(state));
  if (!wall.layout.empty() && wall.layout != layout) {
    Submit({{{"command", "layout"}, {"layout", wall.layout}}, "wall file", {}}, {});
  }
}

void WallControl::Say(const std::string& what) const {
  if (settings_.say) {
    settings_.say(what);
  }
}

void WallControl::Submit(Request request, std::function<void(const Result&)> done) {
  const char* refusal = nullptr;
  {
    const os::MutexLock guard(lock_);
    if (closed_) {
      refusal = "the wall is ending";
    } else if (queue_.size() >= kMaxWaiting) {
      refusal = "too many requests wait; try again in a moment";
    } else {
      queue_.push_back({std::move(request), std::move(done)});
      waiting_.Set();
      return;
    }
  }
  if (done) {
    done(CommandError(Kind::kBusy, refusal));
  }
}

void WallControl::Run() {
  for (;;) {
    Waiting next;
    {
      const os::MutexLock guard(lock_);
      if (queue_.empty()) {
        return;
      }
      next = std::move(queue_.front());
      queue_.pop_front();
    }
    const Result result = CarryOut(next.request);
    if (next.done) {
      next.done(result);
    }
  }
}

void WallControl::Close() {
  std::deque<Waiting> left;
  {
    const os::MutexLock guard(lock_);
    closed_ = true;
    left.swap(queue_);
  }
  for (const Waiting& waiting : left) {
    if (waiting.done) {
      waiting.done(CommandError(Kind::kBusy, "the wall is ending"));
    }
  }
}

std::shared_ptr<const WallState> WallControl::state() const {
  const os::MutexLock guard(lock_);
  return state_;
}

Result WallControl::CarryOut(const Request& request) {
  const std::shared_ptr<const WallState> before = state();
  Result result = [&]() -> Result {
    try {
      return CarryOut(request, *before);
    } catch (const CommandError& error) {
      return error;
    } catch (const std::exception& error) {
      return CommandError(Kind::kFailed, error.what());
    }
  }();
  Report(request, result);
  return result;
}

Accepted WallControl::CarryOut(const Request& request, const WallState& before) {
  if (request.ifVersion && *request.ifVersion != before.version) {
    throw CommandError(Kind::kStale, "the wall has version " + std::to_string(before.version) +
                                         " by now, not " + std::to_string(*request.ifVersion));
  }
  WallState next = before;
  CommandContext context{next, settings_.wallFile.parent_path(), std::chrono::system_clock::now()};
  Accepted accepted;
  Carry(request.commands, context);
  std::optional<config::Wall> file;
  if (context.reloads) {
    file = ReadWallFile();
    Reloaded reloaded = Reload(next, running_, *file);
    next = std::move(reloaded.state);
    accepted.more["changed"] = reloaded.changed;
    accepted.more["needs_restart"] = reloaded.needsRestart;
  }
  accepted.hasChanged = !(next == before);
  if (accepted.hasChanged) {
    ++next.version;
    // Everything that may still fail is done before the wall changes.
    if (context.savesBook) {
      SaveBook(next);
    }
  }
  std::optional<config::Wall> written;
  if (context.saves) {
    written = SaveWall(next, file ? *file : running_);
    accepted.more["saved"] = settings_.wallFile.string();
  }
  if (accepted.hasChanged) {
    accepted.frame = executor_.Execute(before, next);
  }
  if (file) {
    // The next reload is compared with what stays as it was until a restart.
    file->canvas = running_.canvas;
    file->outputs = running_.outputs;
    file->screens = running_.screens;
    file->log = running_.log;
    file->http = running_.http;
    file->spare = running_.spare;
    running_ = std::move(*file);
  }
  if (written) {
    running_.channels = std::move(written->channels);
    running_.placesWindows = written->placesWindows;
    running_.layout = std::move(written->layout);
  }
  accepted.version = next.version;
  const os::MutexLock guard(lock_);
  state_ = std::make_shared<const WallState>(std::move(next));
  return accepted;
}

config::Wall WallControl::ReadWallFile() const {
  if (settings_.wallFile.empty()) {
    throw CommandError(Kind::kConflict, "the wall has no file to read again");
  }
  config::WallFile file = config::ReadWall(settings_.wallFile);
  if (!file.usable()) {
    throw MistakesOf(file, settings_.wallFile);
  }
  return std::move(file.wall);
}

void WallControl::SaveBook(const WallState& state) const {
  if (settings_.wallFile.empty()) {
    throw CommandError(Kind::kConflict, "the wall has no file beside which layouts could be saved");
  }
  LayoutBook(settings_.wallFile).Write(state.saved);
}

config::Wall WallControl::SaveWall(const WallState& state, const config::Wall& known) const {
  if (settings_.wallFile.empty()) {
    throw CommandError(Kind::kConflict, "the wall has no file to save to");
  }
  return WriteWallFile(settings_.wallFile, known, state);
}

// A line of events for every change and every refusal.
void WallControl::Report(const Request& request, const Result& result) {
  const bool isAccepted = std::holds_alternative<Accepted>(result);
  ++(isAccepted ? counters_.accepted : counters_.refused);
  if (HasReload(request.commands)) {
    ++(isAccepted ? counters_.reloadsAccepted : counters_.reloadsRefused);
  }
  Json line;
  if (const auto* const accepted = std::get_if<Accepted>(&result)) {
    if (!accepted->hasChanged) {
      return;
    }
    const std::shared_ptr<const WallState> now = state();
    line = {{"event", "changed"},
            {"from", request.from},
            {"version", accepted->version},
            {"frame", accepted->frame},
            {"commands", WithoutSecrets(request.commands)},
            {"state", ToJson(*now)}};
  } else {
    const auto& error = std::get<CommandError>(result);
    line = {{"event", "refused"}, {"from", request.from}, {"reason", error.detail()}};
    Say("a request of " + request.from + " was refused: " + error.detail());
  }
  events_.Publish(OneLine(line));
}

Json WallControl::Snapshot() const {
  Json snapshot = ToJson(*state());
  if (!settings_.live) {
    return snapshot;
  }
  Json live = settings_.live();
  for (Json& channel : snapshot["channels"]) {
    const auto own = live["channels"].find(channel["name"].get<std::string>());
    if (own != live["channels"].end()) {
      channel["live"] = std::move(*own);
    }
  }
  live.erase("channels");
  snapshot["live"] = std::move(live);
  return snapshot;
}

std::uint64_t WallControl::version() const {
  return state()->version;
}

}  // namespace host::control
