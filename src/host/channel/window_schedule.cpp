#include "host/channel/window_schedule.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace host {
namespace {

// A change of place takes effect this many frames ahead: it does not touch the frame being composed
// and the one that may begin meanwhile.
constexpr std::int64_t kFramesAhead = 2;

bool HasSamePlace(const WindowState& a, const WindowState& b) {
  return a.isShown == b.isShown && a.place == b.place;
}

bool HasSameSize(const WindowState& a, const WindowState& b) {
  return a.place.width == b.place.width && a.place.height == b.place.height;
}

}  // namespace

WindowSchedule::WindowSchedule(std::vector<WindowState> windows, Ratio frameRate, Time latency)
    : rate_(frameRate), latency_(latency) {
  Plan plan;
  plan.from = std::numeric_limits<Time>::min();
  plan.windows = std::move(windows);
  plans_.push_back(std::make_shared<const Plan>(std::move(plan)));
  asked_ = plans_.front();
}

Time WindowSchedule::OnGrid(Time time) const {
  const Time start = FrameStart(FrameAt(time, rate_), rate_);
  return start == time ? start : FrameStart(FrameAt(time, rate_) + 1, rate_);
}

std::optional<Time> WindowSchedule::Change(const std::vector<WindowState>& windows, Time present) {
  const os::MutexLock guard(lock_);
  if (plans_.size() > kMaxPending) {
    return std::nullopt;
  }
  // As they are before hidden windows are resized.
  const std::vector<WindowState> last = plans_.back()->windows;
  const auto all = [&](auto same) {
    return std::equal(last.begin(), last.end(), windows.begin(), windows.end(), same);
  };
  const Time soon = FrameStart(FrameAt(present, rate_) + kFramesAhead, rate_);
  if (all(HasSamePlace)) {
    ChangeLook(windows, soon);
    return soon;
  }
  ResizeHidden(windows, present);
  const Time from = all(HasSameSize) ? soon : OnGrid(present + latency_ + kResizeLead);
  // In order: each change includes all changes before it.
  const Time effective = std::max(from, plans_.back()->from);
  plans_.push_back(std::make_shared<const Plan>(Plan{effective, windows}));
  return effective;
}

// A hidden window is resized at once: its channel makes frames of the next size from now on, and
// has them when the window is shown.
void WindowSchedule::ResizeHidden(const std::vector<WindowState>& windows, Time present) {
  const auto first = std::find(plans_.begin(), plans_.end(), PlanAt(present));
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const bool isHidden = std::none_of(first, plans_.end(),
                                       [&](const auto& plan) { return plan->windows[i].isShown; });
    if (!isHidden || HasSameSize(plans_.back()->windows[i], windows[i])) {
      continue;
    }
    for (auto plan = first; plan != plans_.end(); ++plan) {
      Plan changed = **plan;
      changed.windows[i].place = windows[i].place;
      *plan = std::make_shared<const Plan>(std::move(changed));
    }
  }
}

// Colours and selection do not wait for a pending change of places.
void WindowSchedule::ChangeLook(const std::vector<WindowState>& windows, Time from) {
  const auto with = [&](const Plan& plan, Time start) {
    Plan changed{start, plan.windows};
    for (std::size_t i = 0; i < windows.size(); ++i) {
      changed.windows[i].colour = windows[i].colour;
      changed.windows[i].isSelected = windows[i].isSelected;
    }
    return std::make_shared<const Plan>(std::move(changed));
  };
  const std::shared_ptr<const Plan> now = PlanAt(from);
  auto later = std::find_if(plans_.begin(), plans_.end(),
                            [&](const auto& plan) { return plan->from > from; });
  for (auto plan = later; plan != plans_.end(); ++plan) {
    *plan = with(**plan, (*plan)->from);
  }
  plans_.insert(later, with(*now, from));
}

void WindowSchedule::FrameSent(Time start) {
  const os::MutexLock guard(lock_);
  if (sentCount_ == sent_.size()) {
    sentFirst_ = (sentFirst_ + 1) % sent_.size();
    --sentCount_;
  }
  sent_[(sentFirst_ + sentCount_) % sent_.size()] = start;
  ++sentCount_;
}

const WindowState& WindowSchedule::Ask(std::size_t window) {
  if (window == 0) {
    const os::MutexLock guard(lock_);
    if (sentCount_ > 0) {
      const Time start = sent_[sentFirst_];
      sentFirst_ = (sentFirst_ + 1) % sent_.size();
      --sentCount_;
      asked_ = PlanAt(start);
      // Channels still ask for plans of earlier frames, but only of the time that they wait.
      while (plans_.size() > 1 && plans_[1]->from + latency_ + kSecond < start) {
        plans_.pop_front();
      }
    }
  }
  return asked_->windows[window];
}

void WindowSchedule::FrameComposed(Time start) {
  // A frame that failed before the windows were asked is still waiting.
  const os::MutexLock guard(lock_);
  while (sentCount_ > 0 && sent_[sentFirst_] <= start) {
    sentFirst_ = (sentFirst_ + 1) % sent_.size();
    --sentCount_;
  }
}

const std::shared_ptr<const WindowSchedule::Plan>& WindowSchedule::PlanAt(Time composed) const {
  auto plan = std::prev(plans_.end());
  while (plan != plans_.begin() && (*plan)->from > composed) {
    --plan;
  }
  return *plan;
}

WindowState WindowSchedule::At(std::size_t window, Time composed) const {
  const os::MutexLock guard(lock_);
  return PlanAt(composed)->windows[window];
}

WindowSize WindowSchedule::SizeAt(std::size_t window, Time source) const {
  const os::MutexLock guard(lock_);
  const config::Window& place = PlanAt(source + latency_)->windows[window].place;
  return {place.width, place.height};
}

std::optional<WindowSchedule::Resize> WindowSchedule::NextResize(std::size_t window,
                                                                 Time source) const {
  const os::MutexLock guard(lock_);
  const config::Window* before = &PlanAt(source + latency_)->windows[window].place;
  for (const std::shared_ptr<const Plan>& plan : plans_) {
    const config::Window& place = plan->windows[window].place;
    if (plan->from <= source + latency_) {
      continue;
    }
    if (place.width != before->width || place.height != before->height) {
      return Resize{plan->from - latency_, {place.width, place.height}};
    }
  }
  return std::nullopt;
}

}  // namespace host
