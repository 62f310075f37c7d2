// The outputs of a wall.
#pragma once

#include "host/config/wall.h"
#include "host/output/output_set.h"

namespace host {

VideoEncoder::Settings EncoderOf(const config::Canvas& canvas, const config::Output& output,
                                 bool live);

// What the set of a wall's outputs has to know: one track for each channel whose audio is not
// switched off.
OutputSet::Settings OutputsOfWall(const config::Wall& wall, bool live);

}  // namespace host
