// The outputs of a wall.
#pragma once

#include <vector>

#include "host/output/output_set.h"
#include "host/wall/wall.h"

namespace host {

VideoEncoder::Settings EncoderOf(const wall::Canvas& canvas, const wall::Output& output, bool live);

// What the set of outputs has to know of a wall that is written to these outputs: one track for
// each channel whose sound is not switched off.
OutputSet::Settings OutputsOfWall(const wall::Wall& wall, const std::vector<wall::Output>& outputs,
                                  bool live);

}  // namespace host
