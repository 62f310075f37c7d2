#include "host/channel/channel_queue.h"

#include <algorithm>
#include <iterator>

namespace host {

void ChannelQueue::Open() {
  const std::lock_guard guard(lock_);
  items_.clear();
  lastPushed_.reset();
  target_ = std::numeric_limits<Time>::min();
  horizon_ = std::numeric_limits<Time>::min();
  waiting_ = false;
  waitsUntil_ = kForever;
  readerLeft_ = false;
  closed_ = false;
}

void ChannelQueue::Close() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
    items_.clear();
  }
  roomMade_.notify_all();
  changed_.notify_all();
  settled_.notify_all();
}

bool ChannelQueue::closed() const {
  const std::lock_guard guard(lock_);
  return closed_;
}

bool ChannelQueue::Push(ChannelItem item) {
  {
    std::unique_lock guard(lock_);
    roomMade_.wait(guard, [&] {
      return closed_ || readerLeft_ || items_.empty() || item.time - items_.front().time < span_;
    });
    if (closed_ || readerLeft_) {
      return false;
    }
    lastPushed_ = item.time;
    items_.push_back(std::move(item));
  }
  changed_.notify_one();
  return true;
}

void ChannelQueue::ForgetFrom(Time time) {
  std::deque<ChannelItem> forgotten;  // its buffers go back without the lock
  const std::lock_guard guard(lock_);
  const auto first = std::find_if(items_.begin(), items_.end(),
                                  [&](const ChannelItem& item) { return item.time >= time; });
  const auto afterNews = std::stable_partition(first, items_.end(), [](const ChannelItem& item) {
    return std::holds_alternative<SourceNews>(item.content);
  });
  std::for_each(first, afterNews, [&](ChannelItem& item) { item.time = time; });
  std::move(afterNews, items_.end(), std::back_inserter(forgotten));
  items_.erase(afterNews, items_.end());
}

void ChannelQueue::SetHorizon(Time horizon) {
  {
    const std::lock_guard guard(lock_);
    horizon_ = std::max(horizon_, horizon);
  }
  changed_.notify_one();
}

Time ChannelQueue::Now() const {
  return clock_ ? clock_() : target_;
}

std::optional<ChannelItem> ChannelQueue::Take(Time deadline) {
  std::unique_lock guard(lock_);
  while (!closed_) {
    const Time now = Now();
    if (!items_.empty() && items_.front().time <= now) {
      waiting_ = false;
      ChannelItem item = std::move(items_.front());
      items_.pop_front();
      guard.unlock();
      roomMade_.notify_one();
      return item;
    }
    // A step of time is complete only when its items have all been pushed.
    if (now >= deadline && (clock_ || horizon_ > deadline)) {
      waiting_ = false;
      return std::nullopt;
    }
    waiting_ = true;
    waitsUntil_ = deadline;
    settled_.notify_all();
    const Time next = std::min(items_.empty() ? kForever : items_.front().time, deadline);
    if (clock_ && next != kForever) {
      changed_.wait_for(guard, std::chrono::nanoseconds(100) * (next - now));
    } else {
      changed_.wait(guard);
    }
  }
  waiting_ = true;
  waitsUntil_ = kForever;
  settled_.notify_all();
  return std::nullopt;
}

void ChannelQueue::FollowClock(std::function<Time()> now) {
  const std::lock_guard guard(lock_);
  clock_ = std::move(now);
}

void ChannelQueue::AdvanceTo(Time time) {
  {
    const std::lock_guard guard(lock_);
    target_ = std::max(target_, time);
  }
  changed_.notify_one();
}

bool ChannelQueue::WaitUntilTaken(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  return settled_.wait_for(guard, limit, [&] {
    const bool nothingDue = items_.empty() || items_.front().time > target_;
    return closed_ || (waiting_ && nothingDue && waitsUntil_ > target_ && horizon_ > target_);
  });
}

void ChannelQueue::LeaveReaderBehind() {
  {
    const std::lock_guard guard(lock_);
    readerLeft_ = true;
    horizon_ = kForever;
  }
  roomMade_.notify_all();
  changed_.notify_all();
}

bool ChannelQueue::ended() const {
  const std::lock_guard guard(lock_);
  return closed_ || (items_.empty() && horizon_ == kForever);
}

std::optional<Time> ChannelQueue::lastPushed() const {
  const std::lock_guard guard(lock_);
  return lastPushed_;
}

}  // namespace host
