#include "host/channel/channel_queue.h"

#include <algorithm>

namespace host {
namespace {

constexpr Time kNever = std::numeric_limits<Time>::min();
constexpr std::size_t kEventLane = std::variant_size_v<decltype(ChannelItem::content)> - 1;
static_assert(std::is_same_v<std::variant_alternative_t<kEventLane, decltype(ChannelItem::content)>,
                             SourceEvent>);

}  // namespace

void ChannelQueue::Open() {
  const os::MutexLock guard(lock_);
  for (Lane& lane : lanes_) {
    lane.clear();
  }
  lastPushed_.reset();
  paced_.reset();
  target_.reset();
  horizon_ = kNever;
  waiting_ = false;
  waitsUntil_ = kForever;
  wasFull_ = false;
  readerLeft_ = false;
  closed_ = false;
}

void ChannelQueue::Close() {
  {
    const os::MutexLock guard(lock_);
    closed_ = true;
    for (Lane& lane : lanes_) {
      lane.clear();
    }
  }
  roomMade_.NotifyAll();
  changed_.NotifyAll();
  fixed_.NotifyAll();
}

bool ChannelQueue::closed() const {
  const os::MutexLock guard(lock_);
  return closed_;
}

bool ChannelQueue::HasRoom() {
  if (!paced_) {
    return true;
  }
  if (clock_) {
    return *paced_ - clock_() < span_;
  }
  const Time ahead = *paced_ - target_.value_or(0);
  wasFull_ = ahead >= (wasFull_ ? span_ / 2 : span_);
  return !wasFull_;
}

bool ChannelQueue::hasRoom() {
  const os::MutexLock guard(lock_);
  return HasRoom();
}

Time ChannelQueue::roomAt() const {
  const os::MutexLock guard(lock_);
  return paced_ ? *paced_ - span_ + 1 : kNever;
}

bool ChannelQueue::WaitForRoom() {
  const os::MutexLock guard(lock_);
  while (!closed_ && !readerLeft_ && !HasRoom()) {
    if (clock_) {
      const Time left = *paced_ - clock_() - span_ + 1;
      roomMade_.WaitUntil(lock_, std::chrono::steady_clock::now() +
                                     std::chrono::nanoseconds(100) * std::max<Time>(left, 1));
    } else {
      roomMade_.Wait(lock_);
    }
  }
  return !closed_ && !readerLeft_;
}

bool ChannelQueue::Push(ChannelItem item, bool paces) {
  {
    const os::MutexLock guard(lock_);
    if (closed_ || readerLeft_) {
      return false;
    }
    Lane& lane = lanes_[item.content.index()];
    if (clock_ && lane.size() >= kMaxItems) {
      ++dropped_;
      return true;
    }
    lastPushed_ = item.due;
    paced_ = paces ? item.due : paced_;
    lane.push_back({pushed_++, std::move(item)});
  }
  changed_.NotifyOne();
  return true;
}

void ChannelQueue::ForgetFrom(Time time) {
  std::deque<Lane> forgotten;  // its buffers are released without the lock
  const os::MutexLock guard(lock_);
  for (std::size_t i = 0; i < lanes_.size(); ++i) {
    Lane& lane = lanes_[i];
    if (i == kEventLane) {
      for (Entry& entry : lane) {
        entry.item.due = std::min(entry.item.due, time);
      }
      continue;
    }
    Lane& gone = forgotten.emplace_back();
    while (!lane.empty() && lane.back().item.due >= time) {
      gone.push_back(std::move(lane.back()));
      lane.pop_back();
    }
  }
  for (std::optional<Time>* pushed : {&lastPushed_, &paced_}) {
    if (*pushed) {
      **pushed = std::min(**pushed, time);
    }
  }
}

void ChannelQueue::Move(Time by) {
  {
    const os::MutexLock guard(lock_);
    for (std::size_t i = 0; i < kEventLane; ++i) {
      for (Entry& entry : lanes_[i]) {
        entry.item.due += by;
        entry.item.start += by;
      }
    }
    for (std::optional<Time>* pushed : {&lastPushed_, &paced_}) {
      if (*pushed) {
        **pushed += by;
      }
    }
  }
  changed_.NotifyOne();
}

void ChannelQueue::SetHorizon(Time horizon) {
  {
    const os::MutexLock guard(lock_);
    horizon_ = std::max(horizon_, horizon);
  }
  changed_.NotifyOne();
}

Time ChannelQueue::Now() const {
  return clock_ ? clock_() : target_.value_or(kNever);
}

ChannelQueue::Lane* ChannelQueue::Earliest() {
  Lane* earliest = nullptr;
  const auto key = [](const Lane& lane) {
    return std::pair(lane.front().item.due, lane.front().order);
  };
  for (Lane& lane : lanes_) {
    if (!lane.empty() && (earliest == nullptr || key(lane) < key(*earliest))) {
      earliest = &lane;
    }
  }
  return earliest;
}

std::optional<ChannelItem> ChannelQueue::Take(Time deadline) {
  const os::MutexLock guard(lock_);
  while (!closed_) {
    const Time now = Now();
    Lane* const lane = Earliest();
    const Time next = lane != nullptr ? lane->front().item.due : kForever;
    if (lane != nullptr && next <= now) {
      waiting_ = false;
      ChannelItem item = std::move(lane->front().item);
      lane->pop_front();
      return item;
    }
    // A step of time is complete only when its items have all been pushed.
    if (now >= deadline && (clock_ || horizon_ > deadline)) {
      waiting_ = false;
      return std::nullopt;
    }
    waiting_ = true;
    waitsUntil_ = deadline;
    fixed_.NotifyAll();
    const Time until = std::min(next, deadline);
    if (clock_ && until != kForever) {
      changed_.WaitUntil(
          lock_, std::chrono::steady_clock::now() + std::chrono::nanoseconds(100) * (until - now));
    } else {
      changed_.Wait(lock_);
    }
  }
  waiting_ = true;
  waitsUntil_ = kForever;
  fixed_.NotifyAll();
  return std::nullopt;
}

void ChannelQueue::FollowClock(std::function<Time()> now) {
  const os::MutexLock guard(lock_);
  clock_ = std::move(now);
}

void ChannelQueue::AdvanceTo(Time time) {
  {
    const os::MutexLock guard(lock_);
    target_ = std::max(target_.value_or(time), time);
  }
  changed_.NotifyOne();
  roomMade_.NotifyOne();
}

bool ChannelQueue::WaitUntilTaken(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const os::MutexLock guard(lock_);
  while (!IsTaken() && fixed_.WaitUntil(lock_, deadline)) {
  }
  return IsTaken();
}

bool ChannelQueue::IsTaken() const {
  const Time target = Now();
  const Lane* const lane = Earliest();
  const bool nothingDue = lane == nullptr || lane->front().item.due > target;
  return closed_ || (waiting_ && nothingDue && waitsUntil_ > target && horizon_ > target);
}

void ChannelQueue::DetachReader() {
  {
    const os::MutexLock guard(lock_);
    readerLeft_ = true;
    horizon_ = kForever;
  }
  roomMade_.NotifyAll();
  changed_.NotifyAll();
}

bool ChannelQueue::ended() const {
  const os::MutexLock guard(lock_);
  return closed_ || (Earliest() == nullptr && horizon_ == kForever);
}

std::optional<Time> ChannelQueue::lastPushed() const {
  const os::MutexLock guard(lock_);
  return lastPushed_;
}

std::uint64_t ChannelQueue::dropped() const {
  const os::MutexLock guard(lock_);
  return dropped_;
}

}  // namespace host
