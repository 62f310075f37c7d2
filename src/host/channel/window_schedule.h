// WindowSchedule: where the windows of a running wall are, frame by frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/units.h"
#include "platform/os/mutex.h"

namespace host {

// A window in composed frames.
struct WindowState {
  bool isShown = true;
  config::Window place;
  std::string colour = "#FFFFFF";  // of the label, in one of the composer's forms
  bool isSelected = false;
  bool operator==(const WindowState&) const = default;
};

struct WindowSize {
  int width = 0;  // canvas pixels, even
  int height = 0;
  bool operator==(const WindowSize&) const = default;
};

// A change takes effect with one composed frame, for all windows. The window objects answer places,
// colours, selection and visibility for that frame; sizes are those of the frames that the channels
// have sent for it. These have waited in the composer for its latency, so a change of size is set
// further ahead than the latency: no channel has sent a frame for that time yet.
//
//   application's thread   Change
//   background's thread    FrameSent
//   composition thread     Ask, for every window of a frame in their order; FrameComposed
//   channels' threads      SizeAt, NextResize, At
//
// One lock, never held while calling out. Composing allocates nothing.
class WindowSchedule {
 public:
  // How far ahead of the frames that the channels send a change of size is set.
  static constexpr Time kResizeLead = 300 * kMillisecond;
  static constexpr std::size_t kMaxPending = 32;

  // latency: from a frame's source time to the composed frame that shows it.
  WindowSchedule(std::vector<WindowState> windows, Ratio frameRate, Time latency);

  // Sets all windows. present: the wall's time, not before that of any frame that a channel has
  // sent. Returns the start of the first composed frame that shows the change; none when too many
  // changes are pending.
  std::optional<Time> Change(const std::vector<WindowState>& windows, Time present);

  // A background frame is sent to the composer.
  void FrameSent(Time start);
  // The window in the frame being composed. The first window is asked first.
  const WindowState& Ask(std::size_t window);
  // That frame has been composed.
  void FrameComposed(Time start);

  // The window in the composed frame of that time.
  WindowState At(std::size_t window, Time composed) const;
  // The size that frames of this source time have to have.
  WindowSize SizeAt(std::size_t window, Time source) const;
  struct Resize {
    Time at = 0;  // source time of the first frame of this size
    WindowSize size;
  };
  // The first change of size after this source time.
  std::optional<Resize> NextResize(std::size_t window, Time source) const;

 private:
  struct Plan {
    Time from = 0;  // start of the first composed frame
    std::vector<WindowState> windows;
  };
  using Plans = std::deque<std::shared_ptr<const Plan>>;

  const std::shared_ptr<const Plan>& PlanAt(Time composed) const REQUIRES(lock_);
  // Start of the first frame at that time or later.
  Time OnGrid(Time time) const;
  void ResizeHidden(const std::vector<WindowState>& windows, Time present) REQUIRES(lock_);
  void ChangeLook(const std::vector<WindowState>& windows, Time from) REQUIRES(lock_);

  const Ratio rate_;
  const Time latency_;
  mutable os::Mutex lock_;
  // In the order of time; the first one is in effect, or was until a moment ago.
  Plans plans_ GUARDED_BY(lock_);
  // Starts of the frames in the composer, oldest first; when full, the oldest are dropped.
  std::array<Time, 128> sent_ GUARDED_BY(lock_){};
  std::size_t sentFirst_ GUARDED_BY(lock_) = 0;
  std::size_t sentCount_ GUARDED_BY(lock_) = 0;
  // Of the frame being composed; composition thread only.
  std::shared_ptr<const Plan> asked_;
};

}  // namespace host
