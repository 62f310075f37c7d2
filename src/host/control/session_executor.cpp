#include "host/control/session_executor.h"

#include <algorithm>
#include <chrono>

#include "host/config/layout.h"
#include "host/control/command.h"

namespace host::control {
namespace {

// The settings that determine how a channel's source is opened and read: when they differ, the
// source is opened again.
config::Channel SourceOf(const ChannelEntry& entry) {
  config::Channel source = entry.settings;
  const config::Channel plain;
  source.window = plain.window;
  source.selected = plain.selected;
  source.label = plain.label;
  source.options.colour = plain.options.colour;
  source.options.enabled = plain.options.enabled;
  source.options.decode = plain.options.decode;
  source.options.hold = plain.options.hold;
  source.options.audio.meter = plain.options.audio.meter;
  source.options.alarm = plain.options.alarm;
  // The reader measures with these levels.
  source.options.alarm.black.level = entry.settings.options.alarm.black.level;
  source.options.alarm.freeze.level = entry.settings.options.alarm.freeze.level;
  return source;
}

ChannelControls ControlsOf(const ChannelEntry& entry) {
  ChannelControls controls(entry.settings.options);
  controls.mute = entry.mute;
  controls.maskedUntil = entry.maskedUntil;
  for (std::size_t i = 0; i < config::kAlarmKinds; ++i) {
    controls.acknowledged[i] =
        entry.acknowledged[i] ? std::optional(entry.acknowledged[i]->at) : std::nullopt;
  }
  return controls;
}

}  // namespace

std::optional<std::size_t> HeardSlot(const WallState& state) {
  if (!state.follow.empty()) {
    return state.SlotOf(state.follow);
  }
  const auto selected = std::find_if(state.order.begin(), state.order.end(), [&](std::size_t slot) {
    return state.slots[slot]->settings.selected;
  });
  return selected == state.order.end() ? std::nullopt : std::optional(*selected);
}

std::vector<WindowState> WindowsOf(const WallState& state) {
  std::vector<WindowState> windows;
  for (const std::optional<ChannelEntry>& entry : state.slots) {
    WindowState window;
    window.isShown = entry && entry->isShown();
    window.place = {0, 0, config::kSmallestCanvas, config::kSmallestCanvas};
    if (entry) {
      window.place = entry->settings.window;
      window.colour = entry->settings.options.colour;
      window.isSelected =
          entry->settings.selected && config::CanBeSelected(entry->settings.window, state.canvas);
    }
    windows.push_back(window);
  }
  return windows;
}

std::int64_t SessionExecutor::Execute(const WallState& before, const WallState& next) {
  const std::optional<std::int64_t> frame = session_.Place(WindowsOf(next));
  if (!frame) {
    throw CommandError(CommandError::Kind::kBusy,
                       "too many changes wait for their frame; try again in a moment");
  }
  for (std::size_t slot = 0; slot < next.slots.size(); ++slot) {
    ChangeSlot(slot, before.slots[slot], next.slots[slot]);
  }
  if (const auto heard = HeardSlot(next); heard != HeardSlot(before)) {
    session_.Listen(heard);
  }
  if (before.follow != next.follow) {
    return std::max(*frame, session_.Follow(next.SlotOf(next.follow)));
  }
  return *frame;
}

void SessionExecutor::ChangeSlot(std::size_t slot, const std::optional<ChannelEntry>& before,
                                 const std::optional<ChannelEntry>& next) {
  if (!next) {
    if (before) {
      session_.Assign(slot, nullptr, {});
    }
    return;
  }
  const ChannelControls controls = ControlsOf(*next);
  if (!before || before->reconnects != next->reconnects || SourceOf(*before) != SourceOf(*next)) {
    session_.Assign(slot, &next->settings, controls);
    return;
  }
  if (!(before->settings.label == next->settings.label)) {
    session_.SetLabel(slot, next->settings.label);
  }
  if (!(ControlsOf(*before) == controls)) {
    session_.SetControls(slot, controls);
  }
}

}  // namespace host::control
