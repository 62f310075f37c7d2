// Long runs: what a wall does within years, each with the same objects from beginning to end.
#pragma once

#include <string>
#include <vector>

#include "host/units.h"

namespace simulation {

// How full the heap is, month by month. Detects linear growth, however slow it is.
class HeapTrend {
 public:
  // allowed: bytes by which the minimum of the last twelfth may exceed that of the second one.
  HeapTrend(host::Time length, std::size_t allowed) : length_(length), allowed_(allowed) {}
  // time: since the beginning of the run.
  void Note(host::Time time);
  // Empty when the heap does not grow, or when the allocator has no statistics (sanitizers).
  std::string Growth() const;

 private:
  struct Least {
    std::size_t bytes = 0;
    bool noted = false;
  };
  const host::Time length_;
  const std::size_t allowed_;
  Least early_;
  Least late_;
};

// The wall of MakeLongScenario.
std::vector<std::string> LongWall(host::Time length, const std::string& composerLibrary);
// A stream of that format, with a frame and a packet of audio every few seconds: written by the
// muxer of the outputs into a pipe, and read from it by the reader of the channels.
std::vector<std::string> LongStream(host::Time length, const std::string& format);
// A recording as FLV, with a frame every minute: the timestamps in the files.
std::vector<std::string> LongRecording(host::Time length);

}  // namespace simulation
