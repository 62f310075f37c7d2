// The effects of the commands on a wall's state; for the table of commands only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/config/value_text.h"
#include "host/control/command.h"

namespace host::control {

using config::Quoted;

// Throws CommandError about a name that is not known. field: of the command.
[[noreturn]] void FailUnknown(const char* what, const char* field, const std::string& name,
                              const std::vector<std::string>& known);

// Each changes context.state and throws CommandError. The fields have been checked against the
// table.
void Add(const nlohmann::json& command, CommandContext& context);
void Remove(const nlohmann::json& command, CommandContext& context);
void Set(const nlohmann::json& command, CommandContext& context);
void Reconnect(const nlohmann::json& command, CommandContext& context);
void Select(const nlohmann::json& command, CommandContext& context);
void Order(const nlohmann::json& command, CommandContext& context);
void MuteChannel(const nlohmann::json& command, CommandContext& context);
void Follow(const nlohmann::json& command, CommandContext& context);
void Acknowledge(const nlohmann::json& command, CommandContext& context);
void Mask(const nlohmann::json& command, CommandContext& context);
void ApplyLayout(const nlohmann::json& command, CommandContext& context);
void Solo(const nlohmann::json& command, CommandContext& context);
void SoloOff(const nlohmann::json& command, CommandContext& context);
void Swap(const nlohmann::json& command, CommandContext& context);
void SaveLayout(const nlohmann::json& command, CommandContext& context);
void DeleteLayout(const nlohmann::json& command, CommandContext& context);
void Reload(const nlohmann::json& command, CommandContext& context);
void Save(const nlohmann::json& command, CommandContext& context);

}  // namespace host::control
