// Any lines as requests to a running wall: each is refused with a reason or carried out, and the
// state is valid afterwards: names differ, windows lie on the canvas, what the state names exists,
// and it can be shown.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz/check.h"
#include "host/config/wall_file.h"
#include "host/control/command.h"
#include "host/session/wall_check.h"

namespace host {

// Replaces the one that asks FFmpeg for protocols and formats, which this target does not need.
std::vector<Finding> CheckSource(const config::Channel& /*channel*/) {
  return {};
}

}  // namespace host

namespace {

using host::control::ChannelEntry;
using host::control::CommandContext;
using host::control::CommandError;
using host::control::WallState;

constexpr const char* kWall = R"([wall]
width = 1280
height = 720
spare = 2
[layout.evening]
windows = [[0, 0, 640, 360], [640, 0, 320, 180]]
channels = ["A", ""]
[[channel]]
name = "A"
source = "/clips/a.mp4"
selected = true
[[channel]]
name = "B"
source = "/clips/b.mp4"
label = ""
[[output]]
url = "out.mkv"
)";

void CheckState(const WallState& state) {
  std::set<std::string> names;
  std::set<std::size_t> used(state.order.begin(), state.order.end());
  FUZZ_CHECK(used.size() == state.order.size());
  for (std::size_t slot = 0; slot < state.slots.size(); ++slot) {
    FUZZ_CHECK(state.slots[slot].has_value() == used.contains(slot));
    if (!state.slots[slot]) {
      continue;
    }
    const ChannelEntry& entry = *state.slots[slot];
    FUZZ_CHECK(!entry.settings.name.empty() && names.insert(entry.settings.name).second);
    const host::config::Window& window = entry.settings.window;
    if (entry.isShown()) {
      FUZZ_CHECK(window.width > 0 && window.height > 0);
      FUZZ_CHECK(window.width % 2 == 0 && window.height % 2 == 0);
      FUZZ_CHECK(window.x < state.canvas.width && window.y < state.canvas.height);
      FUZZ_CHECK(window.x + window.width > 0 && window.y + window.height > 0);
    }
  }
  FUZZ_CHECK(state.solo.empty() || names.contains(state.solo));
  FUZZ_CHECK(state.follow.empty() || names.contains(state.follow));
  FUZZ_CHECK(!host::control::ToJson(state)
                  .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                  .empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const WallState kStart = [] {
    const host::config::WallFile file = host::config::ParseWall(kWall, "/walls");
    FUZZ_CHECK(file.usable());
    return WallState::Of(file.wall);
  }();
  WallState state = kStart;
  std::string text(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const nlohmann::json request = nlohmann::json::parse(text.substr(at, end - at), nullptr, false);
    at = end + 1;
    if (request.is_discarded()) {
      continue;
    }
    WallState next = state;
    CommandContext context{next, "/walls", std::chrono::system_clock::time_point{}};
    try {
      host::control::Carry(request, context);
    } catch (const CommandError& error) {
      FUZZ_CHECK(!error.detail().empty());
      continue;
    }
    CheckState(next);
    state = std::move(next);
  }
  return 0;
}
