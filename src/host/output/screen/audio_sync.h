// AudioSync: plays decoded audio in step with frames that are shown.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/os/mutex.h"

namespace host {

// The times at which frames are shown give the offset between the machine's clock and the wall's,
// and so the samples to be heard now. A difference of more than kTolerance is corrected at once, by
// silence or by leaving samples out; a smaller one by playing up to kMaxStretch slower or faster,
// which is inaudible and also follows an audio device whose clock is not the machine's.
//
// Samples are stereo, 32-bit floating point, 48 kHz, interleaved. Any thread; one lock.
class AudioSync {
 public:
  static constexpr int kSampleRate = 48'000;
  static constexpr int kChannels = 2;
  static constexpr Time kTolerance = 30 * kMillisecond;
  static constexpr double kMaxStretch = 0.005;
  static constexpr Time kMaxQueued = 4 * kSecond;  // more drops the oldest

  // Throws ffmpeg::Error.
  AudioSync();

  // The frame of a time of the wall was shown at that time of the machine.
  void FrameShown(Time wall, Time machine);
  void Push(std::span<const float> samples, Time wall);
  // Fills samples, of which the first one is heard at that time of the machine.
  void Pull(std::span<float> samples, Time machine);

 private:
  struct Block {
    std::vector<float> samples;
    Time start = 0;
    std::size_t used = 0;  // samples of each channel

    std::size_t left() const { return samples.size() / kChannels - used; }
    Time position() const;
    Time end() const;
  };

  // Drops what is queued for earlier times.
  void DropUntil(Time wall) REQUIRES(lock_);
  // Plays consecutive samples, at most so many; returns how many.
  std::size_t Play(std::span<float> samples) REQUIRES(lock_);
  void Restart() REQUIRES(lock_);

  os::Mutex lock_;
  ffmpeg::Resampler resampler_ GUARDED_BY(lock_);
  std::deque<Block> blocks_ GUARDED_BY(lock_);
  std::optional<Time> offset_ GUARDED_BY(lock_);  // the machine's time minus the wall's
  int outliers_ GUARDED_BY(lock_) = 0;            // frames in a row that do not fit it
  bool isPlaying_ GUARDED_BY(lock_) = false;      // the samples so far are consecutive
  Time end_ GUARDED_BY(lock_) = 0;                // of the wall's time, of what was played
  double error_ GUARDED_BY(lock_) = 0;            // how early the audio is, smoothed, 100 ns
};

}  // namespace host
