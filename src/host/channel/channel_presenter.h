// ChannelPresenter: what a channel shows, whatever its source does.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_life.h"
#include "host/channel/channel_observer.h"
#include "host/channel/channel_queue.h"
#include "host/graph/feed_pin.h"
#include "host/slate/window_text.h"
#include "host/units.h"
#include "log/i_log_perf.h"

namespace host {

// Feeds the composer with the pictures and alarm records of one channel without a gap:
//
//   state     in the window                                     records
//   opening   nothing; a slate after a second                   alarms, a silent meter
//   live      the source's pictures, repeated when they are     levels and alarms
//             rare; a caption names the alarms that are raised
//   held      the last picture, repeated; caption               alarms, a silent meter
//   lost      a slate: channel, reason, since when              alarms, a silent meter
//
// Repeating keeps at least two pictures waiting in the composer's window pin, which would otherwise
// fix the channel's time anew with every picture, and puts a record near every frame, without which
// meter and alarm box vanish. What is sent has ever later times: a picture that comes after a later
// one was sent is restamped, or dropped when there was another one just before.
//
// Time is that of what is delivered and of the ticks, so a rendered wall shows the same every time.
// Owned by the channel's source; streaming thread only.
class ChannelPresenter {
 public:
  struct Settings {
    std::string name;
    int width = 0;  // of the window, pixels
    int height = 0;
    bool meter = true;  // levels (and the alarm box) are drawn
    Time hold = 5 * kSecond;
    AlarmSettings alarms;
    std::function<std::string(Time)> timeText;  // of the wall's time, as an operator reads it
    std::function<void()> pictureSent;          // called after the first picture
    std::function<Time()> latestFrame;          // start of the latest background frame sent
    qorp::log::ILogPerf* logger = nullptr;      // counts resynchronisations; may be null
  };
  struct Pins {
    FeedPin& video;
    FeedPin& audioAlarm;
    FeedPin& videoAlarm;
  };

  ChannelPresenter(Settings settings, Pins pins, ChannelObserver* observer);

  // Before the first item. now: the wall's time.
  void Begin(Time now);
  void Show(const ReadyPicture& picture);
  void Show(const ReadyLevels& levels);
  void Hear(const SourceNews& news, Time now);
  // When Tick is wanted, unless something is delivered before.
  Time nextTick() const;
  void Tick(Time now);
  // After the last item: lets go of the picture that it keeps.
  void End();

 private:
  void Watch(Time now);
  void Report(bool changed);
  bool showsSlate() const;
  std::string SlateText() const;
  std::string CaptionText() const;
  void Repeat(Time now);
  void SendPicture(IMediaSample* sample, Time start, Time stop);
  void SendCopy(const std::uint8_t* pixels, const std::string& caption, Time start, Time stop);
  void FixClock(const BYTE* pixels, Time start);
  void SendLevels(Time start, Time duration, const AudioLevels& levels);
  WindowPicture Window(BYTE* pixels) const;

  const Settings settings_;
  const Pins pins_;
  ChannelObserver* const observer_;

  ChannelLife life_;
  AlarmMonitor alarms_;
  bool hasPictures_ = true;  // the source has; until it is known, it is taken to have
  bool hasSound_ = false;
  std::string noPictureReason_;
  Time now_ = 0;                  // latest time that was seen
  std::optional<Time> lastSent_;  // start of the latest picture sent
  std::optional<Time> lastReal_;  // ... that came from the source
  std::optional<Time> lastLevels_;
  Time idleSince_ = 0;  // Tick looked, and there was nothing to send

  WindowText text_;
  ComPtr<IMediaSample> kept_;           // latest picture of the source as it was sent
  std::vector<std::uint8_t> pristine_;  // the same without its caption, if it has one
  std::vector<std::uint8_t> slate_;
  std::string slateText_;  // of slate_
};

}  // namespace host
