#include <ctime>

#include "platform/os/ticks.h"

namespace os {
namespace {

std::uint32_t Milliseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                    static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
}

}  // namespace

std::uint32_t TickCount() {
  return Milliseconds(CLOCK_BOOTTIME);
}

std::uint32_t MultimediaTimerMilliseconds() {
  return Milliseconds(CLOCK_MONOTONIC);
}

}  // namespace os
