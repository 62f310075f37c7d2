#include "host/control/command_effects.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string_view>
#include <utility>

#include "host/config/diagnostics.h"
#include "host/config/layout.h"
#include "host/config/value_text.h"
#include "host/config/wall_file.h"
#include "host/session/wall_check.h"
#include "util/time_text.h"

namespace host::control {
namespace {

using Kind = CommandError::Kind;

constexpr std::size_t kMaxLayouts = 256;         // that can be saved
constexpr int kMaxChannelKeys = 64;              // of one command
constexpr double kLongestMask = 366 * 86'400.0;  // seconds

std::string TextOf(const nlohmann::json& command, const char* field) {
  const auto value = command.find(field);
  return value == command.end() ? std::string() : value->get<std::string>();
}

ChannelEntry& ChannelOf(const nlohmann::json& command, CommandContext& context,
                        const char* field = "channel") {
  const std::string name = TextOf(command, field);
  ChannelEntry* const entry = context.state.Find(name);
  if (entry == nullptr) {
    FailUnknown("channel", field, name, context.state.ChannelNames());
  }
  return *entry;
}

config::AlarmKind AlarmOf(const nlohmann::json& command) {
  const std::string name = TextOf(command, "alarm");
  std::vector<std::string> known;
  for (const config::AlarmKind kind : config::kAllAlarms) {
    if (name == config::NameOf(kind)) {
      return kind;
    }
    known.emplace_back(config::NameOf(kind));
  }
  FailUnknown("alarm", "alarm", name, known);
}

// A value of the request as TOML, so that the reader of wall files reads and checks the keys of a
// channel.
void WriteToml(const nlohmann::json& value, const std::string& pointer, std::string& text,
               int depth) {
  if (value.is_string()) {
    text += config::QuotedToml(value.get<std::string>());
  } else if (value.is_boolean()) {
    text += value.get<bool>() ? "true" : "false";
  } else if (value.is_number_integer() && !value.is_number_unsigned()) {
    text += std::to_string(value.get<std::int64_t>());
  } else if (value.is_number_unsigned() &&
             value.get<std::uint64_t>() <=
                 std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
    text += std::to_string(value.get<std::uint64_t>());
  } else if (value.is_number_float() && std::isfinite(value.get<double>())) {
    text += nlohmann::json(value.get<double>()).dump();
  } else if (value.is_array() && depth < 3) {
    text += '[';
    for (std::size_t i = 0; i < value.size(); ++i) {
      text += i > 0 ? ", " : "";
      WriteToml(value[i], pointer + "/" + std::to_string(i), text, depth + 1);
    }
    text += ']';
  } else if (value.is_object() && depth < 3) {
    text += '{';
    bool isFirst = true;
    for (const auto& [key, inner] : value.items()) {
      text += isFirst ? "" : ", ";
      isFirst = false;
      WriteToml(nlohmann::json(key), pointer, text, depth);
      text += " = ";
      WriteToml(inner, std::string(pointer).append("/").append(key), text, depth + 1);
    }
    text += '}';
  } else {
    throw CommandError(Kind::kMalformed, "cannot be a value here", pointer);
  }
}

// Refuses a source with the mistakes that the checker of wall files finds.
void CheckNewSource(const config::Channel& channel) {
  for (const Finding& finding : CheckSource(channel)) {
    if (finding.severity == config::Diagnostic::Severity::kError &&
        finding.key.starts_with("source")) {
      throw CommandError(Kind::kMalformed, finding.what, "/" + finding.key);
    }
  }
}

// The keys of the command that are those of a channel. Throws CommandError that points to the first
// one that is wrong.
config::ChannelText ReadChannelKeys(const nlohmann::json& command,
                                    const std::vector<std::string>& others,
                                    const CommandContext& context, config::Channel base) {
  std::string text;
  int keys = 0;
  for (const auto& [key, value] : command.items()) {
    if (std::find(others.begin(), others.end(), key) != others.end()) {
      continue;
    }
    if (++keys > kMaxChannelKeys) {
      throw CommandError(Kind::kMalformed, "has more keys than a channel knows");
    }
    WriteToml(nlohmann::json(key), "/" + key, text, 0);
    text += " = ";
    WriteToml(value, "/" + key, text, 0);
    text += '\n';
  }
  const std::string formerSource = base.source;
  config::ChannelText channel = config::ParseChannel(text, context.folder, std::move(base));
  for (const config::Diagnostic& diagnostic : channel.diagnostics.all()) {
    if (diagnostic.severity == config::Diagnostic::Severity::kError) {
      throw CommandError(Kind::kMalformed, diagnostic.message,
                         diagnostic.key.empty() ? "" : "/" + diagnostic.key, diagnostic.nearest);
    }
  }
  if (channel.channel.source != formerSource) {
    CheckNewSource(channel.channel);
  }
  return channel;
}

void CheckSelection(const ChannelEntry& entry, const WallState& state) {
  if (entry.settings.selected && !config::CanBeSelected(entry.settings.window, state.canvas)) {
    throw CommandError(Kind::kConflict,
                       "the window of " + Quoted(entry.settings.name) +
                           " touches the edge of the canvas: a selected one lies inside it, one "
                           "pixel away from its right and bottom edges",
                       "/window");
  }
}

void CheckName(const std::string& name, const WallState& state, const ChannelEntry* own) {
  const ChannelEntry* const other = state.Find(name);
  if (other != nullptr && other != own) {
    throw CommandError(Kind::kConflict,
                       "the name " + Quoted(name) + " is that of a channel already", "/name");
  }
}

}  // namespace

void FailUnknown(const char* what, const char* field, const std::string& name,
                 const std::vector<std::string>& known) {
  const std::optional<std::string> nearest = config::NearestName(name, known);
  throw CommandError(Kind::kUnknown,
                     std::string("there is no ") + what + " " + Quoted(name) +
                         (nearest ? "; did you mean " + Quoted(*nearest) + "?" : ""),
                     std::string("/") + field, nearest);
}

void Add(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const auto free = std::find_if(state.slots.begin(), state.slots.end(),
                                 [](const auto& slot) { return !slot.has_value(); });
  if (free == state.slots.end()) {
    throw CommandError(
        Kind::kConflict,
        "there is no spare channel: all " + std::to_string(state.slots.size()) +
            " are in use; \"spare\" in [wall] makes room for more at the next start");
  }
  config::Channel base;
  for (std::size_t number = 1; base.name.empty() || state.Find(base.name) != nullptr; ++number) {
    base = config::NewChannel(number, state.defaults);
  }
  config::ChannelText text = ReadChannelKeys(command, {"command"}, context, std::move(base));
  CheckName(text.channel.name, state, nullptr);
  ChannelEntry entry;
  entry.settings = std::move(text.channel);
  entry.fileWindow = text.window.value_or(config::Window{});
  *free = std::move(entry);
  state.order.push_back(static_cast<std::size_t>(free - state.slots.begin()));
  state.PlaceWindows();
  if (!(*free)->isPlaced && text.window) {
    (*free)->settings.window = *text.window;
  } else if (!(*free)->isPlaced) {
    (*free)->settings.window = config::SoloWindow(state.canvas, state.rules, false);
  }
  CheckSelection(**free, state);
}

void Remove(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const std::string name = ChannelOf(command, context).settings.name;
  const std::size_t slot = *state.SlotOf(name);
  std::erase(state.order, slot);
  state.slots[slot].reset();
  state.solo = state.solo == name ? "" : state.solo;
  state.follow = state.follow == name ? "" : state.follow;
  state.PlaceWindows();
}

void Set(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  ChannelEntry& entry = ChannelOf(command, context);
  const std::string former = entry.settings.name;
  config::ChannelText text =
      ReadChannelKeys(command, {"command", "channel"}, context, entry.settings);
  CheckName(text.channel.name, state, &entry);
  const bool moves = text.window && *text.window != entry.settings.window;
  text.channel.window = text.window.value_or(entry.settings.window);
  entry.settings = std::move(text.channel);
  const std::string& name = entry.settings.name;
  state.solo = state.solo == former ? name : state.solo;
  state.follow = state.follow == former ? name : state.follow;
  if (moves && !state.solo.empty()) {
    throw CommandError(Kind::kConflict,
                       Quoted(state.solo) +
                           " is shown alone; give windows their places after "
                           "\"solo_off\"",
                       "/window");
  }
  if (moves) {
    // From here on the windows are where operators place them.
    for (std::optional<ChannelEntry>& other : state.slots) {
      if (other && state.layout != "file") {
        other->fileWindow = other->isPlaced ? other->settings.window : config::Window{};
      }
    }
    entry.fileWindow = entry.settings.window;
    entry.isPlaced = true;
    state.layout = "file";
  }
  CheckSelection(entry, state);
}

void Reconnect(const nlohmann::json& command, CommandContext& context) {
  ++ChannelOf(command, context).reconnects;
}

// One channel and no other, or none.
void Select(const nlohmann::json& command, CommandContext& context) {
  const bool none = !command.contains("channel");
  const ChannelEntry* const chosen = none ? nullptr : &ChannelOf(command, context);
  const bool adds = command.value("add", false);
  for (std::optional<ChannelEntry>& entry : context.state.slots) {
    if (entry) {
      entry->settings.selected = &*entry == chosen || (adds && entry->settings.selected);
      CheckSelection(*entry, context.state);
    }
  }
}

void Order(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  std::vector<std::size_t> order;
  const nlohmann::json& names = command.at("channels");
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string name = names[i].get<std::string>();
    const std::optional<std::size_t> slot = state.SlotOf(name);
    const std::string field = "channels/" + std::to_string(i);
    if (!slot) {
      FailUnknown("channel", field.c_str(), name, state.ChannelNames());
    }
    if (std::find(order.begin(), order.end(), *slot) != order.end()) {
      throw CommandError(Kind::kMalformed, Quoted(name) + " is given twice", "/" + field);
    }
    order.push_back(*slot);
  }
  // Those that are not named follow in the order that they have.
  for (const std::size_t slot : state.order) {
    if (std::find(order.begin(), order.end(), slot) == order.end()) {
      order.push_back(slot);
    }
  }
  state.order = std::move(order);
  state.PlaceWindows();
}

void MuteChannel(const nlohmann::json& command, CommandContext& context) {
  ChannelEntry& entry = ChannelOf(command, context);
  const std::string with = command.value("with", "silence");
  for (const Mute mute : {Mute::kOff, Mute::kSilence, Mute::kNothing}) {
    if (with == NameOf(mute)) {
      entry.mute = mute;
      return;
    }
  }
  throw CommandError(Kind::kMalformed, "must be \"silence\", \"nothing\" or \"off\"", "/with");
}

void Follow(const nlohmann::json& command, CommandContext& context) {
  context.state.follow =
      command.contains("channel") ? ChannelOf(command, context).settings.name : "";
}

void Acknowledge(const nlohmann::json& command, CommandContext& context) {
  ChannelEntry& entry = ChannelOf(command, context);
  const Acknowledgement one{TextOf(command, "who"), TextOf(command, "note"), context.now};
  if (command.contains("alarm")) {
    entry.acknowledged[static_cast<std::size_t>(AlarmOf(command))] = one;
  } else {
    entry.acknowledged.fill(one);
  }
}

void Mask(const nlohmann::json& command, CommandContext& context) {
  ChannelEntry& entry = ChannelOf(command, context);
  if (command.contains("until") == command.contains("for")) {
    throw CommandError(Kind::kMalformed, "needs \"until\", a moment, or \"for\", seconds",
                       "/until");
  }
  if (command.contains("for")) {
    const double seconds = command["for"].get<double>();
    if (!(seconds >= 0 && seconds <= kLongestMask)) {
      throw CommandError(Kind::kMalformed, "must be seconds from 0 to a year", "/for");
    }
    entry.maskedUntil = context.now + std::chrono::milliseconds(std::llround(seconds * 1000));
  } else {
    entry.maskedUntil = qorp::ParseTimestampUtc(TextOf(command, "until"));
    if (!entry.maskedUntil) {
      throw CommandError(Kind::kMalformed, "must be a moment such as \"2026-11-25T18:00:00Z\"",
                         "/until");
    }
  }
  if (*entry.maskedUntil <= context.now) {
    entry.maskedUntil.reset();
  }
}

void ApplyLayout(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const std::string name = TextOf(command, "layout");
  const std::vector<std::string> known = state.LayoutNames();
  if (std::find(known.begin(), known.end(), name) == known.end()) {
    FailUnknown("layout", "layout", name, known);
  }
  state.layout = name;
  state.solo.clear();
  state.PlaceWindows();
}

void Solo(const nlohmann::json& command, CommandContext& context) {
  context.state.solo = ChannelOf(command, context).settings.name;
  context.state.Find(context.state.solo)->settings.options.enabled = true;
  context.state.PlaceWindows();
}

void SoloOff(const nlohmann::json&, CommandContext& context) {
  context.state.solo.clear();
  context.state.PlaceWindows();
}

void Swap(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const std::size_t first = *state.SlotOf(ChannelOf(command, context).settings.name);
  const std::size_t second = *state.SlotOf(ChannelOf(command, context, "with").settings.name);
  std::swap(*std::find(state.order.begin(), state.order.end(), first),
            *std::find(state.order.begin(), state.order.end(), second));
  std::swap(state.slots[first]->fileWindow, state.slots[second]->fileWindow);
  state.PlaceWindows();
}

void SaveLayout(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const std::string name = TextOf(command, "layout");
  if (!config::IsLayoutName(name)) {
    throw CommandError(Kind::kMalformed,
                       "a layout's name has up to 64 letters, digits, blanks, _ - + or .",
                       "/layout");
  }
  const bool isOfFile = state.layouts.contains(name) && !state.saved.contains(name);
  if (config::IsReservedLayout(name) || isOfFile) {
    throw CommandError(Kind::kConflict,
                       Quoted(name) + (isOfFile ? " is a layout of the wall file"
                                                : " is a layout that every wall has"),
                       "/layout");
  }
  if (state.saved.size() >= kMaxLayouts && !state.saved.contains(name)) {
    throw CommandError(Kind::kConflict,
                       "the book is full: it holds " + std::to_string(kMaxLayouts) + " layouts",
                       "/layout");
  }
  if (!state.solo.empty()) {
    throw CommandError(Kind::kConflict, Quoted(state.solo) + " is shown alone; nothing to save");
  }
  config::Layout layout;
  layout.name = name;
  const bool byName = command.value("by_name", false);
  for (const std::size_t slot : state.order) {
    const ChannelEntry& entry = *state.slots[slot];
    if (entry.isPlaced && config::CanBeSelected(entry.settings.window, state.canvas)) {
      layout.places.push_back({entry.settings.window, byName ? entry.settings.name : ""});
    }
  }
  if (layout.places.empty()) {
    throw CommandError(Kind::kConflict, "no window lies inside the canvas; nothing to save");
  }
  state.layouts[name] = layout;
  state.saved[name] = layout;
  context.savesBook = true;
}

void DeleteLayout(const nlohmann::json& command, CommandContext& context) {
  WallState& state = context.state;
  const std::string name = TextOf(command, "layout");
  if (!state.saved.contains(name)) {
    if (state.layouts.contains(name) || config::IsReservedLayout(name)) {
      throw CommandError(Kind::kConflict, Quoted(name) + " was not saved live and stays",
                         "/layout");
    }
    FailUnknown("layout", "layout", name, state.LayoutNames());
  }
  if (state.layout == name) {
    throw CommandError(Kind::kConflict, Quoted(name) + " is in force", "/layout");
  }
  state.saved.erase(name);
  state.layouts.erase(name);
  context.savesBook = true;
}

void Reload(const nlohmann::json&, CommandContext& context) {
  context.reloads = true;
}

void Save(const nlohmann::json&, CommandContext& context) {
  context.saves = true;
}

}  // namespace host::control
