// Watcher: compares the frames and audio of a channel with what its source sent.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/config/wall.h"
#include "tools/simulation/simulated_source.h"

namespace simulation {

// Of one channel, in an output that keeps up. While nothing disturbs the source and has not for a
// while, and its delivery stays within the second that a wall has for it:
//  - the window shows new frames at the source's rate, or the canvas's if that is lower, and each
//    of them the wall's delay after it was due, within a frame;
//  - the composer never has to set the channel's time again: two frames wait there at least;
//  - audio is there and lies within 40 ms of the frames;
//  - the meter moves with the audio.
// And at any time, no frame is shown after a later one.
class Watcher {
 public:
  using Violated = std::function<void(const std::string&)>;

  // model, as the other arguments, outlives it; null: nothing is expected.
  Watcher(std::string name, const SourceModel* model, const host::config::Canvas& canvas,
          Time begin, Violated violated);

  // When a frame of the source is due; in order.
  void Placed(ContentId id, Time due);
  // The composer has set the channel's time.
  void Resynchronized(Time time);

  // A composed frame, in order; id: what its window shows, if that is a frame of the source.
  void Frame(Time time, std::optional<ContentId> id, bool meterIsLit);
  // The frame that was composed at that time is written; audio before it has been.
  void FrameWritten(Time time);
  void AudioWritten(Time time, Time duration, ContentId id);

  // What was seen: the same for two runs in which nothing differs for this channel.
  std::uint64_t digest() const { return digest_; }

 private:
  struct Shown {
    Time time;
    std::optional<ContentId> id;
    bool lit;
  };
  struct Sounding {
    Time time;
    Time duration;
    ContentId id;
  };
  // Sums over a stretch of calm time.
  struct Stretch {
    int frames = 0;
    int newFrames = 0;
    int silentFrames = 0;
    int wrongMeters = 0;
    Time offset = 0;
    int offsets = 0;
    Time lateness = 0;  // of new frames, against the wall's delay
    int latenesses = 0;
  };

  // Its audio has a place beside its video.
  bool IsHeard() const;
  bool IsCalm(Time time) const;
  void Judge(Time time);
  void Mix(std::uint64_t value);

  const std::string name_;
  const SourceModel* const model_;
  const host::config::Canvas canvas_;
  const Time begin_;
  const Violated violated_;
  std::deque<Shown> shown_;           // not written yet
  std::deque<Sounding> audio_;        // of the last seconds
  std::map<ContentId, Time> due_;     // of what may still be shown
  std::optional<ContentId> latest_;   // shown
  std::optional<ContentId> counted_;  // of the stretch
  std::optional<Time> calmSince_;
  Stretch stretch_;
  std::uint64_t digest_ = 14695981039346656037U;
};

}  // namespace simulation
