#include "host/channel/channel_life.h"

#include <algorithm>

namespace host {
namespace {

// A frame counts as missing this long after the one before it, by the duration of that one.
constexpr Time kMinFrameTimeout = kSecond / 2;
constexpr Time kMaxFrameTimeout = 60 * kSecond;
constexpr Time kTimeoutInFrames = 3;
// Consecutive frames that make a channel live again: of a slow source, of any other source.
constexpr int kSlowOnes = 1;
constexpr int kOnes = 2;

Time FrameTimeout(Time duration) {
  return std::clamp(kTimeoutInFrames * duration, kMinFrameTimeout, kMaxFrameTimeout);
}

}  // namespace

const char* NameOf(ChannelState state) {
  switch (state) {
    case ChannelState::kOpening:
      return "opening";
    case ChannelState::kLive:
      return "live";
    case ChannelState::kHeld:
      return "held";
    case ChannelState::kLost:
      return "lost";
  }
  return "";
}

bool ChannelLife::Become(ChannelState state, const std::string& reason, Time since) {
  Status next{state, reason, since};
  if (next == status_) {
    return false;
  }
  status_ = std::move(next);
  return true;
}

bool ChannelLife::Shown(Time now, Time duration) {
  const bool isAway = status_.state == ChannelState::kHeld || status_.state == ChannelState::kLost;
  if (isAway) {
    const bool follows = straggler_.has_value() && now - *straggler_ < FrameTimeout(duration);
    stragglers_ = follows ? stragglers_ + 1 : 1;
    straggler_ = now;
    if (stragglers_ < (duration < kMinFrameTimeout ? kOnes : kSlowOnes)) {
      return false;
    }
  }
  straggler_.reset();
  lastFrame_ = now;
  lastDuration_ = duration;
  return status_.state != ChannelState::kLive && Become(ChannelState::kLive, {}, now);
}

void ChannelLife::CameLate(Time now) {
  if (status_.state == ChannelState::kLive) {
    lastFrame_ = now;
  }
}

bool ChannelLife::Failed(const std::string& reason, Time now) {
  switch (status_.state) {
    case ChannelState::kOpening:
      return Become(ChannelState::kLost, reason, status_.since);
    case ChannelState::kLive:
      Become(ChannelState::kHeld, reason, lastFrame_.value_or(now));
      Tick(now);
      return true;
    case ChannelState::kHeld:
    case ChannelState::kLost:
      return Become(status_.state, reason, status_.since);
  }
  return false;
}

bool ChannelLife::Tick(Time now) {
  const Time missing = now - lastFrame_.value_or(now);
  bool changed = false;
  if (status_.state == ChannelState::kLive &&
      missing >= FrameTimeout(std::max(lastDuration_, expected_))) {
    changed = Become(ChannelState::kHeld, "no picture comes", *lastFrame_);
  }
  if (status_.state == ChannelState::kHeld && missing >= hold_) {
    changed = Become(ChannelState::kLost, status_.reason, status_.since) || changed;
  }
  return changed;
}

}  // namespace host
