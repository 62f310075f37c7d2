// Millisecond counters that never go back but wrap.
#pragma once

#include <cstdint>

namespace os {

// Milliseconds since the system started, wrapping to 0 every 2^32 (49.7 days). Compare by unsigned
// difference.
std::uint32_t TickCount();

// The multimedia timer's milliseconds: the same kind of counter, with a start of its own and steps
// of 1 ms.
std::uint32_t MultimediaTimerMilliseconds();

}  // namespace os
