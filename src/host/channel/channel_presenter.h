// ChannelPresenter: what the window of a channel shows, also while its source sends nothing.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/channel_alarms.h"
#include "host/channel/channel_life.h"
#include "host/channel/channel_observer.h"
#include "host/channel/channel_queue.h"
#include "host/channel/channel_settings.h"
#include "host/channel/slate/window_text.h"
#include "host/channel/window_feed.h"
#include "host/channel/window_schedule.h"
#include "host/units.h"

namespace host {

// Feeds the composer with the frames and alarm records of one channel without a gap:
//
//   state     in the window                                records
//   opening   nothing; a slate after a second              alarms, a silent meter
//   live      the source's frames, repeated when they are  levels and alarms
//             rare; a caption names the raised alarms
//   held      the last frame, repeated; a caption          alarms, a silent meter
//   lost      a slate: channel, reason, since when         alarms, a silent meter
//
// The times of what is sent only grow: a frame or level that comes after a later one was sent is
// dropped (WindowFill::Takes).
//
// Time is that of the items and ticks, so a rendered wall shows the same every time. Owned by the
// channel's source; streaming thread only.
class ChannelPresenter {
 public:
  // settings and observer outlive the presenter.
  ChannelPresenter(const ChannelSettings& settings, WindowFeed::Pins pins,
                   ChannelObserver* observer);

  // What the composer has of a channel and its window shows; for the next channel in the window.
  struct Handover {
    std::optional<WindowFeed::Sent> sent{};
    ComPtr<IMediaSample> kept{};
    WindowSize size{};
  };

  // Before the first item. now: the wall's time. before: of the former channel of the window, whose
  // last frame stays until there is something else to show.
  void Begin(Time now, Handover before);
  void Begin(Time now) { Begin(now, Handover()); }
  // After End.
  Handover HandOver();
  // What operators changed. Before Begin, or between two items.
  void SetControls(const ChannelControls& controls);
  // start, duration: of the item, on the wall's clock.
  void Show(const ReadyFrame& ready, Time start, Time duration);
  void Show(const ReadyLevels& levels, Time start, Time duration);
  void OnSourceEvent(const SourceEvent& event, Time now);
  // When Tick is to be called, unless something is delivered before.
  Time nextTick() const;
  void Tick(Time now);
  // After the last item: releases the frame that it keeps.
  void End();

 private:
  void Watch(Time now);
  void Report(bool changed);
  // What a repeat shows: a slate with its text, or the last frame with a caption, which may be
  // empty.
  struct Look {
    bool slate = false;
    std::string text;
    bool operator==(const Look&) const = default;
  };

  bool showsSlate() const;
  std::string SlateText() const;
  std::string CaptionText() const;
  void NoteLook();
  const Look& LookAt(Time time);
  void Repeat(Time start);
  void SendFrame(IMediaSample* sample, Time start, Time stop);
  // A copy of what the window shows at that time; null when no buffer is free.
  ComPtr<IMediaSample> Shown(Time start, Time stop);
  ComPtr<IMediaSample> CopyOf(const std::uint8_t* pixels, const std::string& caption, Time start,
                              Time stop);
  void SendLevels(Time start, Time duration, const AudioLevels& levels);
  // Anchors the channel where the composer has it at another time than the wall, or soon will.
  void KeepAnchored();
  // Before anything of that time is sent: the sizes that have changed by then.
  void FollowSize(Time time);
  void ChangeSize(const WindowSchedule::Resize& change);
  void Resize(const WindowSchedule::Resize& change);
  LONG frameBytes() const { return feed_.size().frameBytes(); }
  WindowPixels Window(BYTE* pixels) const;

  const ChannelSettings& settings_;
  ChannelObserver* const observer_;

  ChannelAlarms alarms_;
  ChannelLife life_;
  bool hasVideo_ = true;  // of the source; assumed until it is known
  bool hasAudio_ = false;
  bool awaitsFrames_ = false;   // those between keyframes, which are decoded again
  Time shownAt_ = 0;            // time of the latest frame of the source
  bool keyframesOnly_ = false;  // only keyframes are decoded; the caption says so
  std::string noVideoReason_;
  Time now_ = 0;     // latest time of an item or tick
  Time looked_ = 0;  // when Tick last called Watch

  // Each look with the time from which it applies: a repeat shows that of almost a delay ago.
  std::deque<std::pair<Time, Look>> looks_;

  WindowFeed feed_;
  WindowText text_;
  ComPtr<IMediaSample> kept_;           // latest frame of the source as it was sent
  std::vector<std::uint8_t> pristine_;  // the same without its caption, if it has one
  std::vector<std::uint8_t> slate_;
  std::string slateText_;  // of slate_
};

}  // namespace host
