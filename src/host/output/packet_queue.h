// PacketQueue: what waits for one output.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/os/mutex.h"

namespace host {

// Once nothing waits any more, received = written + dropped + leftOut.
struct TrackCounters {
  std::atomic<std::uint64_t> received{0};
  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> dropped{0};  // the output's queue was full, or it was not open
  std::atomic<std::uint64_t> leftOut{0};  // no place in the file: too late, too early, refused
  std::atomic<std::uint64_t> silence{0};  // written besides, where the channel had no audio
};

// Of the mosaic's video and of the audio of every channel. Any thread.
class OutputCounters {
 public:
  static constexpr int kVideo = -1;

  explicit OutputCounters(std::size_t channels)
      : channels_(channels), tracks_(std::make_unique<TrackCounters[]>(channels + 1)) {}

  // track: kVideo or the number of the channel, which the wall has.
  TrackCounters& of(int track) { return tracks_[static_cast<std::size_t>(track) + 1]; }
  const TrackCounters& of(int track) const { return tracks_[static_cast<std::size_t>(track) + 1]; }
  std::size_t channels() const { return channels_; }

 private:
  std::size_t channels_;
  std::unique_ptr<TrackCounters[]> tracks_;
};

// A packet of the mosaic's video, or of the audio of a channel.
struct TrackPacket {
  static constexpr int kVideo = OutputCounters::kVideo;

  int track = kVideo;     // kVideo or the number of the channel
  ffmpeg::Packet packet;  // timestamps in units of 100 ns, on the wall's clock
  Time offset = 0;        // of audio: the wall's time minus the channel's own
};

// Bounded by bytes and by the time of the video that waits. A full queue drops whole GOPs, the
// oldest first, and the audio of that time: what is left always begins with a keyframe. Or, where
// nothing may be lost, the thread that fills the queue waits for room. What is dropped is counted
// for each track.
//
// Filled by the encoder's thread and the channels' streaming threads, emptied by the output's
// thread, closed by any; one lock.
class PacketQueue {
 public:
  struct Limits {
    std::size_t bytes = 32U << 20;
    Time span = 8 * kSecond;  // from the oldest frame to the newest one
  };

  // counters outlive the queue.
  PacketQueue(Limits limits, OutputCounters& counters) : limits_(limits), counters_(counters) {}

  enum class Pushed {
    kKept,
    kOverflowed,  // others were dropped for it, or it with them
    kRefused,     // after a drop, until the next keyframe
  };

  // Returns at once. A closed queue takes everything and keeps nothing.
  Pushed PushDropping(TrackPacket packet);
  // Waits for room; false once the queue is closed.
  bool PushWaiting(TrackPacket packet);
  // Adds it however full the queue is; for audio, where the thread that drives the wall waits for
  // room.
  void Push(TrackPacket packet);
  // Waits until the queue has room; false when that takes longer than the limit. A closed queue has
  // room: it takes nothing.
  bool WaitForRoom(std::chrono::milliseconds limit);

  // Waits for a packet; null once the queue is closed and empty.
  std::optional<TrackPacket> Pop();
  // Drops what waits before the newest keyframe; false when no keyframe waits.
  bool SkipToNewestKeyframe();
  // Throws away what waits and what comes for that long. False when the queue was closed first.
  bool DiscardFor(std::chrono::milliseconds time);

  // No more packets come; those that wait are still popped.
  void Close();
  // The same, and drops those that wait.
  void Abandon();

  std::size_t bytes() const;

 private:
  static bool IsKey(const TrackPacket& packet);
  bool Full() const REQUIRES(lock_);
  void Add(TrackPacket packet) REQUIRES(lock_);
  void Forget(const TrackPacket& packet) REQUIRES(lock_);
  void Drop(const TrackPacket& packet);
  void DropOldestFrames() REQUIRES(lock_);
  void DropBefore(const TrackPacket& keyframe) REQUIRES(lock_);
  void Clear() REQUIRES(lock_);

  const Limits limits_;
  OutputCounters& counters_;
  mutable os::Mutex lock_;
  os::ConditionVariable filled_;
  os::ConditionVariable roomMade_;
  std::deque<TrackPacket> packets_ GUARDED_BY(lock_);
  std::size_t bytes_ GUARDED_BY(lock_) = 0;
  std::deque<Time> frames_ GUARDED_BY(lock_);   // decoding times of the frames that wait
  bool waitsForKey_ GUARDED_BY(lock_) = false;  // after a drop that left no frame
  bool closed_ GUARDED_BY(lock_) = false;
};

}  // namespace host
