#include "host/output/fragment_feed.h"

#include <algorithm>
#include <iterator>

namespace host {

FragmentFeed::Subscription::Subscription(std::shared_ptr<FragmentFeed> feed, Limits limits,
                                         std::function<void()> wake)
    : feed_(std::move(feed)), limits_(limits), wake_(std::move(wake)) {
  ++feed_->viewers_;
}

FragmentFeed::Subscription::~Subscription() {
  --feed_->viewers_;
}

FragmentFeed::Piece FragmentFeed::Subscription::Next() {
  const os::MutexLock guard(lock_);
  if (description_) {
    return std::exchange(description_, nullptr);
  }
  if (waiting_.empty()) {
    return nullptr;
  }
  Piece next = std::move(waiting_.front());
  waiting_.pop_front();
  bytes_ -= next->bytes.size();
  return next;
}

std::string FragmentFeed::Subscription::end() const {
  const os::MutexLock guard(lock_);
  return end_;
}

std::uint64_t FragmentFeed::Subscription::skipped() const {
  const os::MutexLock guard(lock_);
  return skipped_;
}

void FragmentFeed::Subscription::Add(const Piece& piece) {
  bool wakes = false;
  {
    const os::MutexLock guard(lock_);
    const bool isIdle = !description_ && waiting_.empty();
    if (piece->format) {
      // What waits is of no use without the description before it.
      skipped_ += waiting_.size();
      waiting_.clear();
      bytes_ = 0;
      description_ = piece;
      waitsForKey_ = true;
    } else if (waitsForKey_ && !piece->isKey) {
      ++skipped_;
    } else {
      waitsForKey_ = false;
      waiting_.push_back(piece);
      bytes_ += piece->bytes.size();
      if (waiting_.size() > limits_.fragments || bytes_ > limits_.bytes) {
        SkipToKeyframe();
      }
    }
    wakes = isIdle && (description_ || !waiting_.empty());
  }
  if (wakes && wake_) {
    wake_();
  }
}

void FragmentFeed::Subscription::SkipToKeyframe() {
  const auto newest = std::find_if(waiting_.rbegin(), waiting_.rend(),
                                   [](const Piece& piece) { return piece->isKey; });
  // Behind a keyframe that is the oldest already there is nothing but the next one.
  const auto from = newest == waiting_.rend() || std::next(newest) == waiting_.rend()
                        ? waiting_.end()
                        : std::prev(newest.base());
  waitsForKey_ = from == waiting_.end();
  for (auto piece = waiting_.begin(); piece != from; ++piece) {
    bytes_ -= (*piece)->bytes.size();
    ++skipped_;
  }
  waiting_.erase(waiting_.begin(), from);
}

void FragmentFeed::Subscription::End(const std::string& why) {
  {
    const os::MutexLock guard(lock_);
    end_ = why;
  }
  if (wake_) {
    wake_();
  }
}

std::shared_ptr<FragmentFeed::Subscription> FragmentFeed::Subscribe(Limits limits,
                                                                    std::function<void()> wake) {
  auto subscription = std::make_shared<Subscription>(shared_from_this(), limits, std::move(wake));
  {
    const os::MutexLock guard(lock_);
    std::erase_if(subscriptions_, [](const auto& one) { return one.expired(); });
    subscriptions_.push_back(subscription);
    if (description_) {
      subscription->Add(description_);
    }
  }
  if (joined_) {
    joined_();
  }
  return subscription;
}

void FragmentFeed::Publish(Fragment fragment) {
  const auto piece = std::make_shared<const Fragment>(std::move(fragment));
  const os::MutexLock guard(lock_);
  if (piece->format) {
    description_ = piece;
  }
  std::erase_if(subscriptions_, [&](const std::weak_ptr<Subscription>& one) {
    const std::shared_ptr<Subscription> alive = one.lock();
    if (alive) {
      alive->Add(piece);
    }
    return alive == nullptr;
  });
}

void FragmentFeed::Forget() {
  const os::MutexLock guard(lock_);
  description_ = nullptr;
}

void FragmentFeed::End(const std::string& why) {
  const os::MutexLock guard(lock_);
  description_ = nullptr;
  for (const std::weak_ptr<Subscription>& one : std::exchange(subscriptions_, {})) {
    if (const std::shared_ptr<Subscription> alive = one.lock()) {
      alive->End(why);
    }
  }
}

}  // namespace host
