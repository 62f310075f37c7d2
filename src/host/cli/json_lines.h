// JsonLines: one JSON object in a line, for programs.
#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "platform/os/thread.h"
#include "util/bounded_queue.h"

namespace host::cli {

// Writes lines to a stream from a thread of its own, so that a slow reader holds up
// nobody: of the lines that wait, the oldest are dropped then, and the next line that is written
// says how many. A stream that failed is tried again with each line. Any thread adds lines.
class JsonLines {
 public:
  // enabled false: nothing is written and no thread started.
  JsonLines(std::ostream& stream, bool enabled);
  // As Finish.
  ~JsonLines();
  JsonLines(const JsonLines&) = delete;
  JsonLines& operator=(const JsonLines&) = delete;

  bool enabled() const { return thread_ != nullptr; }
  // line: without its end.
  void Write(std::string line);
  // Writes what waits, for a limited time if the stream's own waiting is limited; nothing is
  // written afterwards. Application's thread.
  void Finish();

 private:
  void Run();

  std::ostream& stream_;  // the writing thread's
  BoundedQueue<std::string> queue_;
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<bool> finishing_{false};
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host::cli
