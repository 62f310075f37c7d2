// A wall in simulated time: real composer, real channels but for their decoders, real queues.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/simulation/scenario.h"

namespace simulation {

struct Result {
  std::vector<std::string> violations;
  std::vector<std::uint64_t> digests;  // of the frames and audio of each channel
  std::uint64_t frames = 0;            // composed
};

// Runs a scenario from beginning to end, deterministically. alone: the other channels' sources are
// never there. fellAsleep: gets the time at which each sleep begins.
Result Run(const Scenario& scenario, const std::string& composerLibrary,
           std::optional<std::size_t> alone = std::nullopt,
           const std::function<void(Time)>& fellAsleep = {});

// Runs a scenario, and one of its channels once more alone: what happens to the others must not
// affect it.
std::vector<std::string> Violations(const Scenario& scenario, const std::string& composerLibrary);

// The smallest scenario that still violates something: leaves out what is not needed for that.
Scenario Shrink(Scenario scenario, const std::string& composerLibrary);

}  // namespace simulation
