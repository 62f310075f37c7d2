// The standard streams of a program: the console, for lines that an operator reads, the debugger
// output, an unbuffered channel for diagnostics, and StandardStream, whose reader may be slow,
// stuck or gone.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <ostream>
#include <streambuf>
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

// Keeps what is put into it and writes it when it is flushed, or when much has come. A flush waits
// for the reader indefinitely, until LimitWaiting: then a flush that takes longer fails, and what
// is left is written by a later one. Text that comes while too much waits is dropped whole. After
// an error of the system, such as a reader that is gone, the flush fails and what waited is
// dropped; the next one tries again. The stream's own state has to be cleared for that.
//
// Any thread; one lock, held while waiting.
class StandardStream final : public std::streambuf {
 public:
  // An open descriptor, not owned: 1 for the output, 2 for errors.
  explicit StandardStream(int descriptor);
  // Writes nothing.
  ~StandardStream() override;

  // timeout: for a flush; afterFailure: for one that follows a flush that took too long.
  void LimitWaiting(std::chrono::milliseconds timeout, std::chrono::milliseconds afterFailure);
  // The same for the buffer of a stream, if it is one of these.
  static void LimitWaiting(std::ostream& stream, std::chrono::milliseconds timeout,
                           std::chrono::milliseconds afterFailure);

 protected:
  int sync() override;
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;

 private:
  enum class Kind { kFile, kNonBlocking, kSocket, kShared };

  bool Put(const char* text, std::size_t count);
  bool WriteWaiting() REQUIRES(lock_);
  // As write(2).
  long WriteOnce(int* error) const REQUIRES(lock_);
  // Until the reader takes something; no time limit for a negative one. False at the limit.
  bool WaitForReader(std::chrono::milliseconds limit) const;

  const int given_;
  Kind kind_ = Kind::kFile;
  int descriptor_;  // given_, or one of our own of the same pipe or terminal
  Mutex lock_;
  std::string waiting_ GUARDED_BY(lock_);
  std::chrono::milliseconds timeout_ GUARDED_BY(lock_){-1};  // negative: unlimited
  std::chrono::milliseconds afterFailure_ GUARDED_BY(lock_){-1};
  bool isStuck_ GUARDED_BY(lock_) = false;   // the latest flush took too long
  bool isInLine_ GUARDED_BY(lock_) = false;  // the latest write ended within a line
  bool isCut_ GUARDED_BY(lock_) = false;     // ... whose rest was dropped
};

// Clears and flushes a stream again and again until everything is written, for that long at most.
// False when it is not.
bool FlushWithin(std::ostream& stream, std::chrono::milliseconds limit);

}  // namespace os
