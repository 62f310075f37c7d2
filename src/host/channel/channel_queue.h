// What a channel's reader has ready for its streaming thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "host/channel/alarm_record.h"
#include "host/channel/picture/picture_meter.h"
#include "host/channel/source/media_info.h"
#include "host/units.h"
#include "platform/com/com_ptr.h"
#include "platform/dshow/samples.h"

namespace host {

// A picture in a buffer of the channel's video pin, stamped.
struct ReadyPicture {
  ComPtr<IMediaSample> sample;
  PictureCondition condition;
};
// The levels of one frame's time.
struct ReadyLevels {
  Time start = 0;  // on the wall's clock, as are the stamps of the others
  Time duration = 0;
  AudioLevels levels;
  float loudest = 0;  // greatest magnitude in all channels, full scale at 1
};
// What became of the source, after everything that it gave before.
struct SourceNews {
  enum class Kind { kOpened, kEnded, kFailed };
  Kind kind = Kind::kOpened;
  bool hasPictures = false;   // kOpened
  bool hasSound = false;      // kOpened
  std::string reason;         // kEnded and kFailed: one sentence; kOpened: why it has no pictures
  std::string serviceName{};  // kOpened: of its programme, otherwise its title; may be empty
};
struct ChannelItem {
  Time time = 0;  // when it is due, on the wall's clock
  std::variant<ReadyPicture, AudioPacket, ReadyLevels, SourceNews> content;
};

// A bounded queue of items in the order of time, between one reader and one streaming thread. An
// item may be taken once its time has come: when the wall's time has reached it. The wall's time is
// either a running clock, or it is moved step by step with AdvanceTo, and then every step can be
// waited for.
//
// The reader waits in Push while the queue holds a span of time that is long enough. Close ends
// every wait, for good until Open.
class ChannelQueue {
 public:
  static constexpr Time kForever = std::numeric_limits<Time>::max();

  // span: how much time the queue holds before the reader waits.
  explicit ChannelQueue(Time span) : span_(span) {}

  // Empties the queue and lets both sides in again.
  void Open();
  void Close();

  // Reader: adds an item; false once the queue is closed.
  bool Push(ChannelItem item);
  // Reader: what is due at this time or later is left out, but for news, which come then.
  void ForgetFrom(Time time);
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
  // Stops waiting for the reader, for good until Open: nothing more is added.
  void LeaveReaderBehind();
  // Nothing is left, and nothing more will come.
  bool ended() const;
  // When the item that was pushed last is due; none before the first.
  std::optional<Time> lastPushed() const;

 private:
  Time Now() const;

  const Time span_;
  mutable std::mutex lock_;
  std::condition_variable roomMade_;
  std::condition_variable changed_;  // for the streaming thread
  std::condition_variable settled_;  // for the driver of the wall's time
  std::deque<ChannelItem> items_;    // guarded by lock_, as is all below
  std::optional<Time> lastPushed_;
  std::function<Time()> clock_;
  Time target_ = std::numeric_limits<Time>::min();
  Time horizon_ = std::numeric_limits<Time>::min();
  bool waiting_ = false;        // the streaming thread has nothing left to deal with ...
  Time waitsUntil_ = kForever;  // ... before this time
  bool readerLeft_ = false;     // behind
  bool closed_ = true;
};

}  // namespace host
