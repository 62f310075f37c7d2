#include "host/channel/item_placer.h"

#include <algorithm>
#include <utility>

namespace host {

ItemPlacer::ItemPlacer(Settings settings, ChannelQueue& queue)
    : settings_(std::move(settings)),
      queue_(queue),
      // Frames are thinned by the frames of the canvas before they are placed.
      timeline_(LiveTimeline::For(settings_.kind, settings_.frameRate, settings_.delay)),
      // One kind of items is in order by itself.
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

bool ItemPlacer::Add(Time start, Time duration, bool jumped, ReadyFrame picture) {
  return Put(Place(start, jumped), duration, std::move(picture));
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
  return Put(start, duration, std::move(levels));
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
  // Audio that is far ahead of the video delays nothing, unless no frame has come for a second.
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
