// Parses a TOML text and finds more than its first mistake.
#pragma once

#include <optional>
#include <string>

#include <toml++/toml.h>

#include "host/config/diagnostics.h"

namespace host::config {

struct TomlFile {
  // What could be read; nothing when the mistakes leave too little to go on.
  std::optional<toml::table> table;
  // Lines were left out because of mistakes: what seems to be missing may stand there.
  bool complete = true;
};

// A mistake within a "key = value" line is reported and the line left out, so that one run shows
// all of them; one in a table's header ends the reading, because what follows cannot be placed.
TomlFile ParseToml(const std::string& text, Diagnostics& diagnostics);

}  // namespace host::config
