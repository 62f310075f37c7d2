// The console, for lines that an operator reads, and the debugger output, an unbuffered channel for
// diagnostics: both end in the standard error stream.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os/mutex.h"

namespace os {

// Whether the descriptor (1 output, 2 errors) is a terminal.
bool IsTerminal(int descriptor);
// The present width of a terminal in characters; 80 when it is not known.
int ConsoleColumns(int descriptor);

// Where a text goes and whether it may be coloured: only on a terminal, and only when the
// environment does not say NO_COLOR. Not locked: its owner calls from one thread at a time.
class Console {
 public:
  // The standard error stream.
  Console();
  // Another open descriptor, not owned.
  explicit Console(int descriptor);
  // A stream, not owned, and whether it may be coloured.
  Console(std::ostream& stream, bool colour);
  // Restores the terminal's own colour.
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  bool HasColour() const { return colour_; }
  // Writes line and a line end at once in a text colour of the system: 1 blue, 2 green, 4 red,
  // added up, and 8 for bright. The colour stays. Errors are ignored.
  void WriteLine(std::uint16_t colour, std::string_view line);

 private:
  void Write(std::string_view text) const;

  int descriptor_ = -1;
  std::ostream* stream_ = nullptr;  // instead of the descriptor
  bool colour_;
  bool changed_ = false;  // the terminal's colour is not its own
};

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
