// The console: lines for a person who watches.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace os {

// Whether somebody watches: the descriptor (1 output, 2 errors) is a terminal.
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

}  // namespace os
