#include "host/control/screen_commands.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/control/command.h"

namespace host::control {
namespace {

using Command = nlohmann::json;
using InputKind = ScreenInput::Kind;

// No command is null. No braced list as an operand of "?:": this compiler destroys it too early.
Command Select(const ChannelEntry* entry) {
  if (entry == nullptr || entry->settings.selected) {
    return nullptr;
  }
  return {{"command", "select"}, {"channel", entry->settings.name}};
}

Command SoloOff(const WallState& state) {
  if (state.solo.empty()) {
    return nullptr;
  }
  return {{"command", "solo_off"}};
}

Command Solo(const ChannelEntry* entry, const WallState& state) {
  if (!state.solo.empty() || entry == nullptr) {
    return SoloOff(state);
  }
  return {{"command", "solo"}, {"channel", entry->settings.name}};
}

const ChannelEntry* Selected(const WallState& state) {
  for (const std::size_t slot : state.order) {
    if (state.slots[slot]->settings.selected) {
      return &*state.slots[slot];
    }
  }
  return nullptr;
}

// The last one in order is drawn above the others.
const ChannelEntry* At(const WallState& state, int x, int y) {
  const ChannelEntry* found = nullptr;
  for (const std::optional<ChannelEntry>& entry : state.slots) {
    if (entry && entry->isShown()) {
      const config::Window& window = entry->settings.window;
      if (x >= window.x && x < window.x + window.width && y >= window.y &&
          y < window.y + window.height) {
        found = &*entry;
      }
    }
  }
  return found;
}

// The window whose centre is nearest in that direction; sideways distance counts twice.
const ChannelEntry* Beside(const WallState& state, int directionX, int directionY) {
  const ChannelEntry* const from = Selected(state);
  const ChannelEntry* best = nullptr;
  int least = std::numeric_limits<int>::max();
  for (const std::size_t slot : state.order) {
    const ChannelEntry& entry = *state.slots[slot];
    if (!entry.isShown() || &entry == from) {
      continue;
    }
    if (from == nullptr || !from->isShown()) {
      return &entry;
    }
    const config::Window& a = from->settings.window;
    const config::Window& b = entry.settings.window;
    const int x = b.x + b.width / 2 - (a.x + a.width / 2);
    const int y = b.y + b.height / 2 - (a.y + a.height / 2);
    const int ahead = x * directionX + y * directionY;
    const int aside = std::abs(x * directionY) + std::abs(y * directionX);
    if (ahead > 0 && ahead >= aside / 2 && ahead + 2 * aside < least) {
      least = ahead + 2 * aside;
      best = &entry;
    }
  }
  return best;
}

Command Layout(const std::string& name) {
  return {{"command", "layout"}, {"layout", name}};
}

Command NextLayout(const WallState& state) {
  const std::vector<std::string> names = state.LayoutNames();
  const auto now = std::find(names.begin(), names.end(), state.layout);
  const auto at = static_cast<std::size_t>(now - names.begin());
  for (std::size_t step = 1; step < names.size(); ++step) {
    WallState next = state;
    next.layout = names[(at + step) % names.size()];
    next.solo.clear();
    try {
      next.PlaceWindows();
      return Layout(next.layout);
    } catch (const CommandError&) {
      // The canvas has no room for it.
    }
  }
  return {};
}

}  // namespace

Command CommandOf(const ScreenInput& input, const WallState& state) {
  const auto digit = static_cast<std::size_t>(std::clamp(input.digit, 1, 9)) - 1;
  switch (input.kind) {
    case InputKind::kClick:
      return Select(At(state, input.x, input.y));
    case InputKind::kDoubleClick:
      return Solo(At(state, input.x, input.y), state);
    case InputKind::kEnter:
      return Solo(Selected(state), state);
    case InputKind::kEscape:
      return SoloOff(state);
    case InputKind::kLeft:
      return Select(Beside(state, -1, 0));
    case InputKind::kRight:
      return Select(Beside(state, 1, 0));
    case InputKind::kUp:
      return Select(Beside(state, 0, -1));
    case InputKind::kDown:
      return Select(Beside(state, 0, 1));
    case InputKind::kChannel:
      return digit < state.order.size() ? Select(&*state.slots[state.order[digit]]) : Command();
    case InputKind::kLayout: {
      const std::vector<std::string> names = state.LayoutNames();
      return digit < names.size() ? Layout(names[digit]) : Command();
    }
    case InputKind::kNextLayout:
      return NextLayout(state);
  }
  return {};
}

}  // namespace host::control
