// The process that shows a screen.
#pragma once

namespace host {

// Shows the frames that the wall which has started this process sends, and tells it what the
// operator does, until the wall or the operator ends it. Returns the exit code: 0, or 64 when no
// wall has started the process. The only thread that uses the display.
int ShowScreenWindow();

}  // namespace host
