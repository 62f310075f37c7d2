// PictureWatch: does a source that sends also give pictures?
#pragma once

#include <algorithm>
#include <chrono>

namespace host {

// A source may go on sending what nobody can decode: another service, damaged beyond use, or sound
// only. Expired says so once it has been read for the limit without a picture, which is at least
// some pictures' time, for slow sources. Only time spent reading counts: a reader that waits for
// room in its queue reads nothing. Owned and called by one reader.
class PictureWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // limit: without a picture; pictureTime: between two pictures of the source.
  PictureWatch(Clock::duration limit, Clock::duration pictureTime)
      : limit_(std::max(limit, kPictures * std::min(pictureTime, kMaxPictureTime))) {}

  void BeginReading(Clock::time_point now) {
    latestPicture_ = left_ ? latestPicture_ + (now - leftAt_) : now;
    left_ = false;
  }
  void EndReading(Clock::time_point now) {
    leftAt_ = now;
    left_ = true;
  }
  void Picture(Clock::time_point now) { latestPicture_ = now; }
  // patience: how much longer than the limit there is a reason to wait.
  bool Expired(Clock::time_point now, Clock::duration patience = {}) const {
    return now - latestPicture_ >= limit_ + patience;
  }

 private:
  static constexpr int kPictures = 4;
  // A stream may announce any frame rate: a slower one ends no watch.
  static constexpr Clock::duration kMaxPictureTime = std::chrono::seconds(10);

  const Clock::duration limit_;
  Clock::time_point latestPicture_;
  Clock::time_point leftAt_;
  bool left_ = false;  // between two readings; at first there was none to leave
};

}  // namespace host
