// SIGINT and SIGTERM end a program in good order.
#pragma once

#include <chrono>

namespace os {

// While one exists, the first SIGINT or SIGTERM asks for an end and the second one ends the program
// at once. One at a time; the application's thread.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Somebody has asked for the end.
  bool Requested() const;
  // Waits for that, no longer than the limit.
  bool WaitFor(std::chrono::milliseconds limit) const;
};

}  // namespace os
