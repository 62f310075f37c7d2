#include "tools/simulation/watcher.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace simulation {

namespace {

using host::kMillisecond;
using host::kSecond;
using Kind = Fault::Kind;

// The length of a stretch that is checked. The delay of a source whose clock is wrong changes by a
// quarter of a second once in a long while, which a stretch must tolerate.
constexpr Time kStretch = 20 * kSecond;
constexpr Time kMaxOffset = 40 * kMillisecond;
constexpr double kMinNewFrames = 0.98;
constexpr double kMaxSilent = 0.02;
constexpr double kMaxWrongMeters = 0.03;

// How long a channel may take to recover after a fault.
Time SettleTime(Kind kind, const SourceModel& model) {
  switch (kind) {
    case Kind::kStall:
    case Kind::kStarved:
    case Kind::kLoss:
    case Kind::kHidden:
      return 3 * kSecond;
    case Kind::kRestart:
    case Kind::kRemuxed:
      // The length of its bursts is learnt again.
      return (model.burst > 0 ? 12 : 3) * kSecond;
    default:
      return 12 * kSecond;
  }
}

std::string Text(Time time) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f s", static_cast<double>(time) / kSecond);
  return text;
}

}  // namespace

Watcher::Watcher(std::string name, const SourceModel* model, const host::config::Canvas& canvas,
                 Time begin, Violated violated)
    : name_(std::move(name)),
      model_(model),
      canvas_(canvas),
      begin_(begin),
      violated_(std::move(violated)) {}

void Watcher::Mix(std::uint64_t value) {
  for (int i = 0; i < 8; ++i) {
    digest_ = (digest_ ^ (value >> (8 * i) & 0xFF)) * 1099511628211U;
  }
}

bool Watcher::IsCalm(Time time) const {
  constexpr Time kStart = 15 * kSecond;
  if (time - begin_ < kStart) {
    return false;
  }
  return std::none_of(model_->faults.begin(), model_->faults.end(), [&](const Fault& fault) {
    // A sender that is replaced comes back a second after the other one has gone.
    const Time extra = fault.kind == Kind::kReplaced ? 2 * kSecond : kSecond;
    return time >= fault.at - kSecond &&
           time < fault.at + fault.length + extra + SettleTime(fault.kind, *model_);
  });
}

void Watcher::Placed(ContentId id, Time due) {
  due_[id] = due;
}

void Watcher::Resynchronized(Time time) {
  if (model_ != nullptr && IsCalm(time)) {
    violated_(name_ + " is resynchronized at " + Text(time));
  }
}

bool Watcher::IsHeard() const {
  return model_->audio && model_->divergence == 0;
}

void Watcher::Frame(Time time, std::optional<ContentId> id, bool meterIsLit) {
  Mix(id ? (std::uint64_t{id->epoch} << 32 | id->number) : 0);
  Mix(meterIsLit ? 1 : 0);
  if (id && latest_ && *id < *latest_) {
    violated_(name_ + " goes back from frame " + std::to_string(latest_->number) + " to " +
              std::to_string(id->number) + " at " + Text(time));
  }
  latest_ = id ? id : latest_;
  if (model_ != nullptr) {
    shown_.push_back({time, id, meterIsLit});
  }
}

void Watcher::AudioWritten(Time time, Time duration, ContentId id) {
  Mix(static_cast<std::uint64_t>(time));
  Mix(std::uint64_t{id.epoch} << 32 | id.number);
  audio_.push_back({time, duration, id});
}

void Watcher::FrameWritten(Time time) {
  while (!shown_.empty() && shown_.front().time <= time) {
    const Shown shown = shown_.front();
    shown_.pop_front();
    if (!IsCalm(shown.time)) {
      calmSince_.reset();
      continue;
    }
    if (!calmSince_ || shown.time - *calmSince_ >= kStretch) {
      if (calmSince_) {
        Judge(shown.time);
      }
      calmSince_ = shown.time;
      stretch_ = {};
      counted_ = shown.id;
    }
    ++stretch_.frames;
    if (shown.id && shown.id != counted_) {
      ++stretch_.newFrames;
      counted_ = shown.id;
      if (const auto due = due_.find(*shown.id); due != due_.end()) {
        stretch_.lateness += shown.time - due->second - canvas_.delay;
        ++stretch_.latenesses;
        due_.erase(due_.begin(), due);
      }
    }
    if (!IsHeard()) {
      continue;
    }
    while (audio_.size() > 1 && audio_[1].time <= shown.time) {
      audio_.pop_front();
    }
    const bool audio = !audio_.empty() && audio_.front().time <= shown.time &&
                       shown.time < audio_.front().time + audio_.front().duration + kMillisecond;
    stretch_.silentFrames += audio ? 0 : 1;
    if (!shown.id) {
      continue;
    }
    const Time frameTime = SimulatedSource::VideoTime(*model_, shown.id->number);
    if (audio && audio_.front().id.epoch == shown.id->epoch) {
      const Time audioTime = SimulatedSource::AudioTime(*model_, audio_.front().id.number) +
                             shown.time - audio_.front().time;
      stretch_.offset += frameTime - audioTime;
      ++stretch_.offsets;
    }
    // Around the moments at which it changes, a frame of the source says nothing about the meter.
    const Time slack = 100 * kMillisecond + host::FrameDuration(model_->frameRate);
    if (IsLoud(frameTime - slack) == IsLoud(frameTime + slack) && frameTime > slack) {
      stretch_.wrongMeters += IsLoud(frameTime) != shown.lit ? 1 : 0;
    }
  }
}

void Watcher::Judge(Time time) {
  const std::string where = name_ + " in the " + Text(kStretch) + " before " + Text(time) + ": ";
  const double seconds = static_cast<double>(stretch_.frames) / canvas_.frameRate.value();
  const double expected =
      seconds * std::min(model_->frameRate.value(), canvas_.frameRate.value()) * kMinNewFrames - 1;
  if (stretch_.newFrames < expected) {
    violated_(where + std::to_string(stretch_.newFrames) + " new frames instead of " +
              std::to_string(static_cast<int>(expected) + 1));
  }
  // A frame of a slow source covers the time around it or after it.
  const Time frameTime = host::FrameDuration(model_->frameRate);
  const Time mostOffset = kMaxOffset + std::max<Time>(frameTime - kMaxOffset, 0) / 2;
  const Time lateness = stretch_.latenesses > 0 ? stretch_.lateness / stretch_.latenesses : 0;
  if (std::abs(lateness) > mostOffset || stretch_.latenesses < stretch_.newFrames / 2) {
    violated_(where + "video is shown " + std::to_string(lateness / kMillisecond) +
              " ms after the delay (" + std::to_string(stretch_.latenesses) + " frames)");
  }
  if (!IsHeard()) {
    return;
  }
  if (stretch_.silentFrames > kMaxSilent * stretch_.frames + 1) {
    violated_(where + std::to_string(stretch_.silentFrames) + " frames without audio");
  }
  const Time offset = stretch_.offsets > 0 ? stretch_.offset / stretch_.offsets : 0;
  if (std::abs(offset) > mostOffset || stretch_.offsets < stretch_.frames / 2) {
    violated_(where + "video is " + std::to_string(offset / kMillisecond) + " ms off its audio (" +
              std::to_string(stretch_.offsets) + " frames)");
  }
  if (stretch_.wrongMeters > kMaxWrongMeters * stretch_.frames + 2) {
    violated_(where + "the meter is wrong on " + std::to_string(stretch_.wrongMeters) + " frames");
  }
}

}  // namespace simulation
