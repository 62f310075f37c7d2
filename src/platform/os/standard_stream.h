// StandardStream: the output or error stream of a program, whose reader may be slow, stuck or gone.
#pragma once

#include <chrono>
#include <ostream>
#include <streambuf>
#include <string>

#include "platform/os/mutex.h"

namespace os {

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
