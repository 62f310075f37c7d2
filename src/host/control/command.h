// Commands: everything that can be asked of a running wall.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/control/wall_state.h"
#include "util/exceptions.h"

namespace host::control {

// Why a command is refused. Nothing of its request has taken effect.
class CommandError : public TavrelException {
 public:
  enum class Kind {
    kMalformed,  // not a command, or a field has the wrong type or an impossible value
    kUnknown,    // names a channel or layout that is not there
    kConflict,   // not possible in this state: no spare slot, the name is taken, ...
    kRestart,    // only a restart can change it: canvas, frame rate, codecs
    kStale,      // the wall is no longer as the request expects it (If-Match)
    kBusy,       // too many requests wait
    kFailed,     // could not be carried out: a file could not be written, ...
  };

  // pointer: to the field within the request as a JSON pointer ("/0/channel"), may be empty.
  // nearest: a known name that was probably meant.
  CommandError(Kind kind, std::string detail, std::string pointer = {},
               std::optional<std::string> nearest = {})
      : kind_(kind),
        detail_(std::move(detail)),
        pointer_(std::move(pointer)),
        nearest_(std::move(nearest)) {}

  Kind kind() const { return kind_; }
  const std::string& detail() const { return detail_; }
  const std::string& pointer() const { return pointer_; }
  const std::optional<std::string>& nearest() const { return nearest_; }
  // The same one inside a larger request.
  CommandError At(const std::string& prefix) const {
    return {kind_, detail_, prefix + pointer_, nearest_};
  }
  const char* what() const noexcept override { return detail_.c_str(); }

 private:
  Kind kind_;
  std::string detail_;
  std::string pointer_;
  std::optional<std::string> nearest_;
};

// A field of a command, for the reader of its arguments and for descriptions of the API.
struct CommandField {
  enum class Type { kText, kNumber, kBoolean, kTexts, kObject, kChannel, kLayout, kAlarm };
  const char* name;
  Type type;
  bool isRequired;
  const char* meaning;  // a sentence
};

// The state on which commands are carried out, and what else they need.
struct CommandContext {
  WallState& state;
  std::filesystem::path folder;  // of the wall file, where relative paths start
  std::chrono::system_clock::time_point now;
  // Actions outside of the state, once the request has been accepted.
  bool reloads = false;  // the wall file is read again
  bool saves = false;    // the state is written to the wall file
  bool savesBook = false;
};

// One kind of command. {"command":"solo","channel":"Cam 1"}
struct CommandKind {
  const char* name;
  const char* meaning;  // a sentence
  std::vector<CommandField> fields;
  bool takesChannelKeys;  // and any key of a [[channel]] of a wall file
  // Throws CommandError, whose pointer is relative to the command.
  void (*apply)(const nlohmann::json& command, CommandContext& context);
};

std::span<const CommandKind> CommandKinds();

// One command, or a list of them that is carried out as a whole. Throws CommandError, after which
// the state must be discarded.
void Carry(const nlohmann::json& request, CommandContext& context);

}  // namespace host::control
