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

// Writes lines, in colour only on a terminal and only when the environment does not set NO_COLOR.
// Not locked: called from one thread at a time.
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

// Writes text unchanged and unbuffered. Any thread; the texts of two threads may interleave, not
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

// Buffers text, and writes it when it is flushed or the buffer has grown large. A flush waits for
// the reader without limit unless LimitWaiting sets one: a flush that takes longer fails, and a
// later one writes the rest. Text that arrives while the buffer is full is dropped whole. On a
// system error, such as a closed pipe, the flush fails and drops the buffer; a later flush tries
// again, once the stream's error state has been cleared.
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
  // Until the reader takes something. False at the limit; a negative one is none.
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

// Clears the stream's error state and flushes it until a flush succeeds. False at the limit.
bool FlushWithin(std::ostream& stream, std::chrono::milliseconds limit);

}  // namespace os
