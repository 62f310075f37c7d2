// ReplacementInput: opens a source once more while it is being read.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/units.h"
#include "platform/os/thread.h"

namespace host {

// The how-many-th of its kind a stream is, counted from 0. index: of the stream in the input.
int OrdinalOf(const AVFormatContext& input, int index);

// Opens it on a thread of its own and reads up to where the first one is, so that its reader can
// change over without a gap. Owned and called by one reader on its thread; one that is destroyed
// before it is ready ends by itself.
class ReplacementInput {
 public:
  // A stream that is read: the how-many-th of its kind, and what has been read of it.
  struct Position {
    int kind = 0;     // AVMediaType
    int ordinal = 0;  // among the streams of its kind, counted from 0
    Time latest = 0;  // source time of its latest packet
  };
  struct Settings {
    std::string name;  // path or URL
    std::map<std::string, std::string> options;
    std::chrono::milliseconds limit{20'000};  // to open it and to read up to the positions
    std::vector<Position> positions;          // the first one decides
  };
  struct Opened {
    std::shared_ptr<ffmpeg::IoDeadline> deadline;  // of the input; outlives it
    ffmpeg::InputFormat input;
    std::vector<ffmpeg::Packet> packets;  // that it gave, which come after the positions
  };

  explicit ReplacementInput(Settings settings);
  ~ReplacementInput();
  ReplacementInput(const ReplacementInput&) = delete;
  ReplacementInput& operator=(const ReplacementInput&) = delete;

  // It has been opened, or could not be.
  bool ready() { return thread_.Wait(0); }
  // Once ready: what was opened; none when it could not be.
  std::optional<Opened> Take();

 private:
  struct State;

  static void Run(State& state);

  std::shared_ptr<State> state_;
  os::Thread thread_;
};

}  // namespace host
