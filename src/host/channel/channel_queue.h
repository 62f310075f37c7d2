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
// The levels during one frame.
struct ReadyLevels {
  AudioLevels levels;
  float loudest = 0;  // greatest magnitude in all channels, full scale at 1
};
// Something happened to the source, after everything that it sent before.
struct SourceEvent {
  enum class Kind { kOpened, kEnded, kFailed, kAudio, kDecoding, kRenamed };
  Kind kind = Kind::kOpened;
  bool hasVideo = false;  // kOpened
  bool hasAudio = false;  // kOpened
  std::string reason;     // kEnded and kFailed: one sentence; kOpened: why it has no frames
  // kOpened and kRenamed: of the program that is shown, otherwise the source's title; may be empty.
  std::string serviceName{};
  AudioAbsence audioAbsence{};  // kOpened and kAudio
  std::string audioReason{};    // why there is no audio
  bool keyframesOnly = false;   // kDecoding: no other frames are shown from now on
};
struct ChannelItem {
  Time due = 0;    // when it is delivered, on the wall's clock
  Time start = 0;  // when it is shown, on the wall's clock: earlier than due when it is late
  Time duration = 0;
  std::variant<ReadyFrame, AudioPacket, ReadyLevels, SourceEvent> content;
};

// A bounded queue between one reader and one streaming thread. Frames, audio packets, levels and
// events each keep their order; between the kinds only their times decide, so a kind that is late
// or comes in bursts delays no other. An item may be taken once the wall's time has reached its due
// time. The wall's time is either a running clock or advanced step by step (AdvanceTo); each step
// can then be waited for.
//
// Close ends every wait until Open.
class ChannelQueue {
 public:
  static constexpr Time kForever = std::numeric_limits<Time>::max();
  // Of each kind; only a faulty source sends more within the span of the queue.
  static constexpr std::size_t kMaxItems = 8192;

  // span: how far ahead of the wall's time a reader that can wait reads.
  explicit ChannelQueue(Time span) : span_(span) {}

  // Empties the queue and lets both sides in again.
  void Open();
  void Close();

  // The wall's time from which hasRoom is true.
  Time roomAt() const;
  // Reader: whether the last item that paces it is due less than the span ahead. If the time is
  // advanced step by step, a full queue has room again only when half of the span is used up, so
  // that its reader decodes many frames in a row.
  bool hasRoom();
  // Reader: waits until hasRoom. False once the queue is closed.
  bool WaitForRoom();
  // Reader: adds an item; never waits. paces: the reader waits for it (WaitForRoom). False once the
  // queue is closed. An item of a kind of which the queue is full is dropped and counted.
  bool Push(ChannelItem item, bool paces = true);
  // Reader: drops what is due at this time or later, except events, which become due at it.
  void ForgetFrom(Time time);
  // Reader: moves everything that is queued, except events, later by this much.
  void Move(Time by);
  // Reader: everything before this time has been pushed. kForever: nothing more will come.
  void SetHorizon(Time horizon);

  // Streaming thread: the next item that is due. Waits for one until the deadline (in the wall's
  // time); none when the deadline has passed or the queue is closed. If the time is advanced step
  // by step, the deadline has passed once everything before it has been pushed and taken.
  std::optional<ChannelItem> Take(Time deadline = kForever);
  bool closed() const;

  // The wall's time as a running clock; called by any thread.
  void FollowClock(std::function<Time()> now);
  // Moves the wall's time forward, step by step.
  void AdvanceTo(Time time);
  // True once everything up to the time set last has been taken and processed; false when that
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
  // Everything up to the time set last has been taken and processed.
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
  // Due time of the latest item that paces the reader.
  std::optional<Time> paced_ GUARDED_BY(lock_);
  std::function<Time()> clock_ GUARDED_BY(lock_);
  std::optional<Time> target_ GUARDED_BY(lock_);  // the wall's time, moved step by step
  Time horizon_ GUARDED_BY(lock_) = std::numeric_limits<Time>::min();
  bool waiting_ GUARDED_BY(lock_) = false;        // the streaming thread has nothing to process ...
  Time waitsUntil_ GUARDED_BY(lock_) = kForever;  // ... before this time
  bool wasFull_ GUARDED_BY(lock_) = false;        // and has no room yet
  bool readerLeft_ GUARDED_BY(lock_) = false;
  bool closed_ GUARDED_BY(lock_) = true;
};

}  // namespace host
