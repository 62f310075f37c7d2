// Which channels of a wall cannot read side by side.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/config/wall.h"

namespace host {

// A channel whose source another one, before it, takes for itself.
struct SharingMistake {
  std::size_t channel = 0;  // index in the wall
  std::string what;         // what follows "source" in a sentence
};

// Channels with the same address and options of its protocol share the connection
// (SharedReceivers), those with the same address, options and limits the demuxer (SharedInputs);
// the others have one each. That is impossible for ports that they open in different ways, for a
// place where both wait for the same sender, and for a pipe. By what the addresses say, without
// opening anything.
std::vector<SharingMistake> FindSharingMistakes(const config::Wall& wall);

}  // namespace host
