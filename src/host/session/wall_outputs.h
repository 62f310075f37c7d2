// The outputs of a wall.
#pragma once

#include "host/output/output_set.h"
#include "host/wall/wall.h"

namespace host {

VideoEncoder::Settings EncoderOf(const wall::Canvas& canvas, const wall::Output& output, bool live);

// What the set of a wall's outputs has to know: one track for each channel whose audio is not
// switched off.
OutputSet::Settings OutputsOfWall(const wall::Wall& wall, bool live);

}  // namespace host
