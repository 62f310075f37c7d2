// Finds channels of a wall whose sources cannot be open at the same time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/config/wall.h"

namespace host {

// A channel whose source an earlier channel occupies.
struct SharingMistake {
  std::size_t channel = 0;  // index in the wall
  std::string what;         // what follows "source" in a sentence
};

// Channels with the same address and options of its protocol share the connection
// (SharedReceivers), those with the same address, options and limits the demuxer (SharedInputs);
// the others have one each. That is impossible for ports that they open in different ways, for two
// that wait for the same sender, and for a pipe. Looks at the addresses only and opens nothing.
std::vector<SharingMistake> FindSharingMistakes(const config::Wall& wall);

}  // namespace host
