// VideoWatch: does a source that sends also give frames?
#pragma once

#include <algorithm>
#include <chrono>

namespace host {

// A source may go on sending what nobody can decode: another service, damaged beyond use, or audio
// only. Expired says so once it has been read for the limit without a frame, which is at least
// some frames' time, for slow sources. Only time spent reading counts: a reader that waits for
// room in its queue reads nothing. Owned and called by one reader.
class VideoWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // limit: without a frame; frameTime: between two frames of the source.
  VideoWatch(Clock::duration limit, Clock::duration frameTime)
      : limit_(std::max(limit, kPictures * std::min(frameTime, kMaxFrameTime))) {}

  void BeginReading(Clock::time_point now) {
    latestFrame_ = left_ ? latestFrame_ + (now - leftAt_) : now;
    left_ = false;
  }
  void EndReading(Clock::time_point now) {
    leftAt_ = now;
    left_ = true;
  }
  void Picture(Clock::time_point now) { latestFrame_ = now; }
  // extra: how much longer than the limit there is a reason to wait.
  bool Expired(Clock::time_point now, Clock::duration extra = {}) const {
    return now - latestFrame_ >= limit_ + extra;
  }

 private:
  static constexpr int kPictures = 4;
  // A stream may announce any frame rate: a slower one ends no watch.
  static constexpr Clock::duration kMaxFrameTime = std::chrono::seconds(10);

  const Clock::duration limit_;
  Clock::time_point latestFrame_;
  Clock::time_point leftAt_;
  bool left_ = false;  // between two readings; at first there was none to leave
};

}  // namespace host
