// The operator's input at a screen, as commands.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "host/control/wall_state.h"
#include "host/output/screen/screen_input.h"

namespace host::control {

// The command for a wall of that state; null when there is nothing to do. A click selects the
// channel whose window is there, a double click shows it alone or all again, as Enter does with the
// one that is selected; Escape shows all again; an arrow selects the nearest window in its
// direction, a digit the channel of that place in order or, with the control key, the layout; "L"
// the next layout for which there is room.
nlohmann::json CommandOf(const ScreenInput& input, const WallState& state);

}  // namespace host::control
