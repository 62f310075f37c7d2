#include "host/channel/item_placer.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

// Two periods of lateness within this time are not a single stall.
constexpr Time kAgainWithin = 10 * kSecond;
constexpr Time kReserve = kSecond / 20;
// The lead shrinks when it is too long by this much, at least by a frame; and by how much at most
// at once.
constexpr Time kTooMuchLead = kSecond / 50;
constexpr Time kShrinkStep = kSecond / 5;

}  // namespace

// The first start of a frame at this time or later.
Time LiveTimeline::OnGrid(Time shift) const {
  return FrameStart(FrameAt(shift - 1, settings_.frameRate) + 1, settings_.frameRate);
}

void LiveTimeline::Anchor(Time start, Time now) {
  shift_ = OnGrid(now + settings_.lead - start);
  behind_ = now - (start + *shift_);
  lateSince_.reset();
  lateBefore_.reset();
  range_.Clear();
  range_.Note(behind_, now);
  ++changes_;
}

void LiveTimeline::Move(Time by) {
  const Time shift = OnGrid(*shift_ + by);
  moved_ = shift - *shift_;
  if (moved_ != 0) {
    shift_ = shift;
    behind_ -= moved_;
    range_.Shift(-moved_);
    ++changes_;
  }
}

bool LiveTimeline::IsLateForLong(Time behind, Time now) {
  // Two periods of lateness with a stall between them are not one.
  const bool stalled = behind - behind_ >= settings_.lateLimit;
  behind_ = behind;
  if (behind > settings_.slack) {
    if (!lateSince_ || stalled) {
      lateSince_ = now;
      excess_ = 0;
    }
    excess_ = std::max(excess_, behind - settings_.slack);
    return now - *lateSince_ >= settings_.lateLimit;
  }
  if (lateSince_) {
    // It has caught up.
    const bool again = lateBefore_ && now - *lateBefore_ <= kAgainWithin;
    growth_ = again ? std::max(excess_, excessBefore_) + kReserve : 0;
    lateBefore_ = now;
    excessBefore_ = excess_;
    lateSince_.reset();
  }
  return false;
}

// By how much the offset has to change according to the range.
Time LiveTimeline::Correction() const {
  if (range_.least() > 0) {
    return range_.least() + settings_.lead;
  }
  const Time spare = -range_.greatest() - settings_.lead;
  if (settings_.heldBack || spare < std::max(kTooMuchLead, FrameDuration(settings_.frameRate))) {
    return 0;
  }
  return -(range_.isYoung() ? spare : std::min(spare, kShrinkStep));
}

Time LiveTimeline::Place(Time start, bool jumped, Time now) {
  moved_ = 0;
  jumped_ = false;
  if (!shift_) {
    Anchor(start, now);
    changes_ = 0;
    return start + *shift_;
  }
  const Time behind = now - (start + *shift_);
  growth_ = 0;
  const bool late = IsLateForLong(behind, now);
  const bool full = range_.Note(behind, now);
  if (late || (jumped && behind > 0) || -behind > settings_.aheadLimit) {
    const Time before = *shift_;
    Anchor(start, now);
    jumped_ = *shift_ < before;
    moved_ = jumped_ || jumped ? 0 : *shift_ - before;
  } else if (growth_ > 0) {
    Move(std::min(growth_, std::max<Time>(settings_.maxLead - lead(), 0)));
  } else if (full) {
    Move(Correction());
  }
  return start + *shift_;
}

LiveTimeline::Fit LiveTimeline::Follow(Time start, Time now, Time* placed) {
  if (!shift_) {
    Anchor(start, now);
    changes_ = 0;
  }
  *placed = start + *shift_;
  if (*placed - now > settings_.followAhead) {
    return Fit::kTooEarly;
  }
  return now - *placed > settings_.followBehind ? Fit::kTooLate : Fit::kFits;
}

ItemPlacer::ItemPlacer(Settings settings, ChannelQueue& queue)
    : settings_(std::move(settings)),
      queue_(queue),
      // Frames are dropped to the rate of the canvas before they are placed.
      timeline_(LiveTimeline::For(settings_.kind, settings_.frameRate, settings_.delay)),
      // Items of a single kind are in order already.
      merger_(settings_.hasVideo && settings_.hasAudio ? kMergeWindow : 0) {}

bool ItemPlacer::WaitsForFrame() const {
  return settings_.now && settings_.hasVideo && settings_.kind != SourceKind::kFile &&
         !timeline_.started();
}

Time ItemPlacer::Place(Time start, bool jumped) {
  if (!settings_.now) {
    return start;
  }
  const Time placed = timeline_.Place(start, jumped, settings_.now());
  if (timeline_.jumped()) {
    queue_.ForgetFrom(placed);
    latest_ = std::min(latest_, placed);
  } else if (timeline_.moved() != 0) {
    queue_.Move(timeline_.moved());
  }
  return placed;
}

bool ItemPlacer::Add(Time start, Time duration, bool jumped, ReadyFrame frame) {
  return Put(Place(start, jumped), duration, std::move(frame));
}

std::optional<Time> ItemPlacer::PlaceOfFrame(Time start) const {
  return settings_.now ? timeline_.Expected(start) : std::optional(start);
}

std::optional<Time> ItemPlacer::PlaceOfAudio(Time start) {
  if (WaitsForFrame() || (settings_.now && timeline_.Follow(start, settings_.now(), &start) !=
                                               LiveTimeline::Fit::kFits)) {
    return std::nullopt;
  }
  return start;
}

bool ItemPlacer::Add(Time start, Time duration, AudioPacket packet) {
  if (settings_.now) {
    if (WaitsForFrame()) {
      return true;
    }
    switch (timeline_.Follow(start, settings_.now(), &start)) {
      case LiveTimeline::Fit::kTooEarly:
        ++leftOut_.tooEarly;
        return true;
      case LiveTimeline::Fit::kTooLate:
        ++leftOut_.tooLate;
        return true;
      case LiveTimeline::Fit::kFits:
        break;
    }
  }
  return Put(start, duration, std::move(packet));
}

bool ItemPlacer::Add(Time start, Time duration, ReadyLevels levels) {
  if (WaitsForFrame()) {
    return true;
  }
  if (!settings_.hasVideo) {
    start = Place(start, false);
  } else if (settings_.now &&
             timeline_.Follow(start, settings_.now(), &start) != LiveTimeline::Fit::kFits) {
    return true;
  }
  return Put(start, duration, levels);
}

bool ItemPlacer::Put(Time start, Time duration, decltype(ChannelItem::content) content) {
  ChannelItem item{start, start, duration, std::move(content)};
  if (settings_.now) {
    return HandOn(std::move(item));
  }
  merger_.Push(start, std::move(item));
  return Flush();
}

bool ItemPlacer::HandOn(ChannelItem item) {
  const bool isFrame = std::holds_alternative<ReadyFrame>(item.content);
  if (isFrame || !audioSinceFrame_) {
    audioSinceFrame_ = isFrame ? std::nullopt : std::optional(item.start);
  }
  // Audio that is ahead of the video does not pace the reader, unless no frame came for a second.
  const bool leads =
      isFrame || !settings_.now || !settings_.hasVideo || item.start - *audioSinceFrame_ > kSecond;
  if (leads) {
    latest_ = std::max(latest_, item.due);
  }
  progress_ = true;
  return queue_.Push(std::move(item), leads);
}

bool ItemPlacer::Flush() {
  while (const Time* const next = merger_.Next()) {
    const Time due = *next;
    ChannelItem item = merger_.Take();
    item.due = due;
    if (!HandOn(std::move(item))) {
      return false;
    }
  }
  queue_.SetHorizon(std::min(merger_.Horizon(), ChannelQueue::kForever - 1));
  return true;
}

bool ItemPlacer::Finish() {
  merger_.Finish();
  return Flush();
}

bool ItemPlacer::TakeProgress() {
  return std::exchange(progress_, false);
}

}  // namespace host
