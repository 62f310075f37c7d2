#include "host/channel/rendition/rendition_set.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <utility>

#include "host/channel/video/frame_converter.h"

namespace host {

void RenditionSet::Assign(std::vector<PlaylistVariant> renditions) {
  renditions_ = std::move(renditions);
  // A playlist with new addresses each time leaves nothing behind.
  std::erase_if(memory_, [&](const auto& entry) {
    return std::none_of(renditions_.begin(), renditions_.end(),
                        [&](const auto& each) { return each.source == entry.first; });
  });
  for (std::size_t i = 0; i < renditions_.size(); ++i) {
    if (const std::optional<WindowSize> size = Of(i).size) {
      std::tie(renditions_[i].width, renditions_[i].height) = std::tie(size->width, size->height);
    }
  }
}

void RenditionSet::Learn(std::size_t index, int width, int height) {
  Of(index).hasNoVideo = width <= 0;
  if (width > 0) {
    Of(index).size = {width, height};
    renditions_[index].width = width;
    renditions_[index].height = height;
  }
}

void RenditionSet::Failed(std::size_t index, Clock::time_point now) {
  Memory& memory = Of(index);
  const auto pause = kMinPause * (1 << std::min(memory.failures, 10));
  memory.leftOutUntil = now + std::min<Clock::duration>(pause, kMaxPause);
  ++memory.failures;
}

void RenditionSet::Succeeded(std::size_t index) {
  Of(index).failures = 0;
}

const RenditionSet::Memory* RenditionSet::Find(std::size_t index) const {
  const auto found = memory_.find(renditions_[index].source);
  return found != memory_.end() ? &found->second : nullptr;
}

bool RenditionSet::IsLeftOut(std::size_t index, Clock::time_point now) const {
  const Memory* const memory = Find(index);
  return memory != nullptr && (memory->hasNoVideo || now < memory->leftOutUntil);
}

bool RenditionSet::Suffices(std::size_t index, WindowSize window) const {
  const PlaylistVariant& rendition = renditions_[index];
  const FitRect shown = FitFrame(rendition.width, rendition.height, {1, 1}, window.width,
                                 window.height, pixelAspect_);
  return rendition.width >= shown.width && rendition.height >= shown.height;
}

std::vector<std::size_t> RenditionSet::Order(WindowSize window, Clock::time_point now) const {
  const auto rank = [&](std::size_t index) {
    const PlaylistVariant& each = renditions_[index];
    const std::int64_t pixels = std::int64_t{each.width} * each.height;
    const bool suffices = IsKnown(index) && Suffices(index, window);
    const int group = !IsKnown(index) ? 2 : suffices ? 0 : 1;
    return std::tuple(IsLeftOut(index, now), group, suffices ? pixels : -pixels, -each.bandwidth);
  };
  std::vector<std::size_t> order(renditions_.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return rank(a) < rank(b); });
  return order;
}

std::optional<std::size_t> RenditionSet::Best(WindowSize window, Clock::time_point now) const {
  const std::size_t first = Order(window, now).front();
  return IsLeftOut(first, now) ? std::nullopt : std::optional(first);
}

std::optional<std::size_t> RenditionSet::Unknown(Clock::time_point now) const {
  for (std::size_t i = 0; i < renditions_.size(); ++i) {
    if (!IsKnown(i) && !IsLeftOut(i, now)) {
      return i;
    }
  }
  return std::nullopt;
}

}  // namespace host
