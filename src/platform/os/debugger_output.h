// The debugger output: an unbuffered channel for diagnostics, the standard error stream.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/os/mutex.h"

namespace os {

// Writes text as it stands, at once. Any thread; the pieces of two threads may interleave, not
// their bytes. Errors are ignored.
void WriteDebuggerOutput(std::string_view text);

// While one exists, collects what would be written; for tests. One at a time, made and destroyed
// while no other thread writes.
class DebuggerOutputCapture {
 public:
  DebuggerOutputCapture();
  ~DebuggerOutputCapture();
  DebuggerOutputCapture(const DebuggerOutputCapture&) = delete;
  DebuggerOutputCapture& operator=(const DebuggerOutputCapture&) = delete;

  // One element for each call, in order.
  std::vector<std::string> Pieces() const;
  // All of them joined.
  std::string Text() const;

 private:
  friend void WriteDebuggerOutput(std::string_view text);

  mutable Mutex lock_;
  std::vector<std::string> pieces_ GUARDED_BY(lock_);
};

}  // namespace os
