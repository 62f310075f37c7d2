// ChannelQueue: what a channel's reader has ready for its streaming thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <variant>

#include "host/channel/source/media_info.h"
#include "host/channel/video/frame_meter.h"
#include "host/channel/window_schedule.h"
#include "host/feed/alarm_record.h"
#include "host/units.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/mutex.h"

namespace host {

// A frame in a buffer of the channel's video pin.
struct ReadyFrame {
  ComPtr<IMediaSample> sample;
  FrameCondition condition;
  WindowSize size{};
};
// The levels of one frame's time.
struct ReadyLevels {
  AudioLevels levels;
  float loudest = 0;  // greatest magnitude in all channels, full scale at 1
};
// What became of the source, after everything that it gave before.
struct SourceEvent {
  enum class Kind { kOpened, kEnded, kFailed, kAudio, kDecoding, kRenamed };
  Kind kind = Kind::kOpened;
  bool hasVideo = false;  // kOpened
  bool hasAudio = false;  // kOpened
  std::string reason;     // kEnded and kFailed: one sentence; kOpened: why it has no frames
  // kOpened and kRenamed: of the program that is shown, otherwise its title; may be empty.
  std::string serviceName{};
  AudioAbsence audioAbsence{};  // kOpened and kAudio
  std::string audioReason{};    // why there is no audio
  bool keyframesOnly = false;   // kDecoding: no other frames are shown from now on
};
struct ChannelItem {
  Time due = 0;    // when it is handed on, on the wall's clock
  Time start = 0;  // what it belongs to, on the wall's clock: earlier than due when it came late
  Time duration = 0;
  std::variant<ReadyFrame, AudioPacket, ReadyLevels, SourceEvent> content;
};

// A bounded queue between one reader and one streaming thread. Frames, audio packets, levels and
// event are each in their order and wait for each other only by their times: one kind that comes
// late or in bursts delays no other. An item may be taken once its time has come: when the wall's
// time has reached it. The wall's time is either a running clock, or it is moved step by step with
// AdvanceTo, and then every step can be waited for.
//
// Close ends every wait until Open.
class ChannelQueue {
 public:
  static constexpr Time kForever = std::numeric_limits<Time>::max();
  // Of one kind; a source that sends more in the time that the queue spans sends nonsense.
  static constexpr std::size_t kMaxItems = 8192;

  // span: how far ahead of the wall's time a reader that can wait reads.
  explicit ChannelQueue(Time span) : span_(span) {}

  // Empties the queue and lets both sides in again.
  void Open();
  void Close();

  // When that is so.
  Time roomAt() const;
  // Reader: whether what was pushed last and paces it lies less than the span ahead. Moved step by
  // step, a queue that was full has room again when half of the span is used up: its reader decodes
  // many frames in a row.
  bool hasRoom();
  // Reader: waits for that. False once the queue is closed.
  bool WaitForRoom();
  // Reader: adds an item; never waits. paces: the reader waits for it (WaitForRoom). False once the
  // queue is closed. An item of a kind of which the queue is full is dropped and counted.
  bool Push(ChannelItem item, bool paces = true);
  // Reader: what is due at this time or later is left out, but for event, which come then.
  void ForgetFrom(Time time);
  // Reader: everything that waits, but for event, belongs to a time that is later by that much.
  void Move(Time by);
  // Reader: everything before this time has been pushed. kForever: nothing more will come.
  void SetHorizon(Time horizon);

  // Streaming thread: the next item whose time has come. Waits for one until the deadline (in the
  // wall's time); null when the deadline has passed or the queue is closed. Moved step by step, the
  // deadline has passed once everything before it has been pushed and taken.
  std::optional<ChannelItem> Take(Time deadline = kForever);
  bool closed() const;

  // The wall's time as a running clock; any thread may ask it.
  void FollowClock(std::function<Time()> now);
  // Moves the wall's time forward, step by step.
  void AdvanceTo(Time time);
  // True once everything up to the time set last has been taken and dealt with; false when that
  // takes longer than the limit.
  bool WaitUntilTaken(std::chrono::milliseconds limit);
  // Stops waiting for the reader until Open: nothing more is added.
  void DetachReader();
  // Nothing is left, and nothing more will come.
  bool ended() const;
  // When the item that was pushed last is due; none before the first.
  std::optional<Time> lastPushed() const;
  // Items that found the queue full.
  std::uint64_t dropped() const;

 private:
  struct Entry {
    std::uint64_t order = 0;  // of pushing; decides between items that are due together
    ChannelItem item;
  };
  using Lane = std::deque<Entry>;

  Time Now() const REQUIRES(lock_);
  bool HasRoom() REQUIRES(lock_);
  // The lane whose first item is due first; null when all are empty.
  Lane* Earliest() REQUIRES(lock_);
  const Lane* Earliest() const REQUIRES(lock_) {
    return const_cast<ChannelQueue*>(this)->Earliest();
  }
  // Everything up to the time set last has been taken and dealt with.
  bool IsTaken() const REQUIRES(lock_);

  const Time span_;
  mutable os::Mutex lock_;
  os::ConditionVariable roomMade_;
  os::ConditionVariable changed_;  // for the streaming thread
  os::ConditionVariable fixed_;    // for the driver of the wall's time
  // One for each kind of content.
  std::array<Lane, std::variant_size_v<decltype(ChannelItem::content)>> lanes_ GUARDED_BY(lock_);
  std::uint64_t pushed_ GUARDED_BY(lock_) = 0;
  std::uint64_t dropped_ GUARDED_BY(lock_) = 0;
  std::optional<Time> lastPushed_ GUARDED_BY(lock_);
  std::optional<Time> paced_
      GUARDED_BY(lock_);  // due time of the latest item that paces the reader
  std::function<Time()> clock_ GUARDED_BY(lock_);
  std::optional<Time> target_ GUARDED_BY(lock_);  // the wall's time, moved step by step
  Time horizon_ GUARDED_BY(lock_) = std::numeric_limits<Time>::min();
  bool waiting_ GUARDED_BY(lock_) =
      false;  // the streaming thread has nothing left to deal with ...
  Time waitsUntil_ GUARDED_BY(lock_) = kForever;  // ... before this time
  bool wasFull_ GUARDED_BY(lock_) = false;        // and has no room again
  bool readerLeft_ GUARDED_BY(lock_) = false;
  bool closed_ GUARDED_BY(lock_) = true;
};

}  // namespace host
