#include "host/control/command.h"

#include <algorithm>
#include <utility>

#include "host/control/command_effects.h"

namespace host::control {
namespace {

using Kind = CommandError::Kind;
using Type = CommandField::Type;

constexpr std::size_t kMaxCommands = 256;  // in one request
constexpr std::size_t kMaxText = 4096;     // bytes of a field

constexpr CommandField kChannel{"channel", Type::kChannel, true, "Name of a channel."};
constexpr CommandField kLayoutName{"layout", Type::kLayout, true, "Name of a layout."};

const char* NameOf(Type type) {
  switch (type) {
    case Type::kText:
    case Type::kChannel:
    case Type::kLayout:
    case Type::kAlarm:
      return "a text";
    case Type::kNumber:
      return "a number";
    case Type::kBoolean:
      return "true or false";
    case Type::kTexts:
      return "a list of texts";
    case Type::kObject:
      return "an object";
  }
  return "";
}

bool IsText(const nlohmann::json& value) {
  return value.is_string() && value.get_ref<const std::string&>().size() <= kMaxText;
}

bool HasType(const nlohmann::json& value, Type type) {
  switch (type) {
    case Type::kText:
    case Type::kChannel:
    case Type::kLayout:
    case Type::kAlarm:
      return IsText(value);
    case Type::kNumber:
      return value.is_number();
    case Type::kBoolean:
      return value.is_boolean();
    case Type::kTexts:
      return value.is_array() && std::all_of(value.begin(), value.end(), IsText);
    case Type::kObject:
      return value.is_object();
  }
  return false;
}

const CommandKind& KindOf(const nlohmann::json& command) {
  if (!command.is_object()) {
    throw CommandError(Kind::kMalformed,
                       "must be an object such as {\"command\": \"solo\", \"channel\": \"NAME\"}");
  }
  const auto name = command.find("command");
  if (name == command.end() || !IsText(*name)) {
    throw CommandError(Kind::kMalformed, "has no \"command\"", "/command");
  }
  std::vector<std::string> known;
  for (const CommandKind& kind : CommandKinds()) {
    if (*name == kind.name) {
      return kind;
    }
    known.emplace_back(kind.name);
  }
  FailUnknown("command", "command", name->get<std::string>(), known);
}

void CheckFields(const nlohmann::json& command, const CommandKind& kind) {
  for (const CommandField& field : kind.fields) {
    const auto value = command.find(field.name);
    const std::string pointer = std::string("/") + field.name;
    if (value == command.end()) {
      if (field.isRequired) {
        throw CommandError(
            Kind::kMalformed,
            Quoted(kind.name) + " needs " + Quoted(field.name) + ": " + field.meaning, pointer);
      }
    } else if (!HasType(*value, field.type)) {
      throw CommandError(Kind::kMalformed, std::string("must be ") + NameOf(field.type), pointer);
    }
  }
  for (const auto& item : command.items()) {
    const std::string& key = item.key();
    const bool isKnown = key == "command" || kind.takesChannelKeys ||
                         std::any_of(kind.fields.begin(), kind.fields.end(),
                                     [&](const CommandField& field) { return key == field.name; });
    if (!isKnown) {
      std::vector<std::string> known;
      for (const CommandField& field : kind.fields) {
        known.emplace_back(field.name);
      }
      FailUnknown("field", key.c_str(), key, known);
    }
  }
}

}  // namespace

std::span<const CommandKind> CommandKinds() {
  static const std::vector<CommandKind> kinds{
      {"add", "Adds a channel in a spare slot.", {}, true, &Add},
      {"remove", "Removes a channel.", {kChannel}, false, &Remove},
      {"set", "Changes keys of a channel, its source included.", {kChannel}, true, &Set},
      {"reconnect", "Closes a channel's source and opens it again.", {kChannel}, false, &Reconnect},
      {"select",
       "Draws the selection border of one channel, or of none.",
       {{"channel", Type::kChannel, false, "Name of a channel; none without it."},
        {"add", Type::kBoolean, false, "Others stay selected."}},
       false,
       &Select},
      {"order",
       "Sets the order in which layouts are filled.",
       {{"channels", Type::kTexts, true, "Names; the others follow as they are."}},
       false,
       &Order},
      {"mute",
       "Mutes the track of a channel.",
       {kChannel,
        {"with", Type::kText, false, "\"silence\" (without it), \"nothing\", or \"off\"."}},
       false,
       &MuteChannel},
      {"follow",
       "Chooses the channel whose audio the follow track carries.",
       {{"channel", Type::kChannel, false, "Name of a channel; silence without it."}},
       false,
       &Follow},
      {"acknowledge",
       "Acknowledges the alarms of a channel until they are raised again.",
       {kChannel,
        {"alarm", Type::kAlarm, false, "Only that one."},
        {"who", Type::kText, false, "Who acknowledges."},
        {"note", Type::kText, false, "A note for others."}},
       false,
       &Acknowledge},
      {"mask",
       "Masks the alarms of a channel for a time.",
       {kChannel,
        {"until", Type::kText, false, "A moment, such as \"2026-11-25T18:00:00Z\"."},
        {"for", Type::kNumber, false, "Seconds from now on; 0 ends the mask."}},
       false,
       &Mask},
      {"layout", "Applies a layout.", {kLayoutName}, false, &ApplyLayout},
      {"solo", "Shows one channel alone, as large as the canvas.", {kChannel}, false, &Solo},
      {"solo_off", "Shows the layout again.", {}, false, &SoloOff},
      {"swap",
       "Exchanges the places of two channels.",
       {kChannel, {"with", Type::kChannel, true, "Name of the other channel."}},
       false,
       &Swap},
      {"save_layout",
       "Saves the places of the windows as a layout.",
       {{"layout", Type::kText, true, "Its name."},
        {"by_name", Type::kBoolean, false, "Each place keeps its channel."}},
       false,
       &SaveLayout},
      {"delete_layout",
       "Deletes a layout that was saved live.",
       {kLayoutName},
       false,
       &DeleteLayout},
      {"reload", "Reads the wall file again and changes what differs.", {}, false, &Reload},
      {"save", "Writes the state into the wall file.", {}, false, &Save},
  };
  return kinds;
}

void Carry(const nlohmann::json& request, CommandContext& context) {
  const auto one = [&](const nlohmann::json& command) {
    const CommandKind& kind = KindOf(command);
    CheckFields(command, kind);
    kind.apply(command, context);
  };
  if (!request.is_array()) {
    one(request);
    return;
  }
  if (request.empty() || request.size() > kMaxCommands) {
    throw CommandError(Kind::kMalformed,
                       "must be 1 to " + std::to_string(kMaxCommands) + " commands");
  }
  for (std::size_t i = 0; i < request.size(); ++i) {
    try {
      one(request[i]);
    } catch (const CommandError& error) {
      throw error.At("/" + std::to_string(i));
    }
  }
}

}  // namespace host::control
