#include "host/channel/window_size_follower.h"

#include <algorithm>
#include <utility>

#include "host/ffmpeg/error.h"

namespace host {
namespace {

constexpr Time kTypedFor = 2 * kSecond;

}  // namespace

void WindowSizeFollower::UseType(Time from) {
  typedUntil_ = from + kTypedFor;
  video_.ChangeType(
      VideoType(size_.width, size_.height, settings_.canvas.frameRate, settings_.canvas.aspect),
      frameBytes());
}

void WindowSizeFollower::Begin(Time now, const WindowSize& size) {
  size_ = size.width > 0 ? size : settings_.SizeAt(now);
  sizedAt_ = now;
  // The window's frames may come for the first time.
  UseType(now);
}

std::optional<WindowSchedule::Resize> WindowSizeFollower::Next(Time time) {
  if (settings_.windows) {
    const auto change = settings_.windows->NextResize(settings_.slot, sizedAt_);
    if (change && change->at <= time) {
      sizedAt_ = change->at;
      return change;
    }
  }
  sizedAt_ = std::max(sizedAt_, time);
  const WindowSize size = settings_.SizeAt(sizedAt_);
  return size == size_ ? std::nullopt : std::optional(WindowSchedule::Resize{sizedAt_, size});
}

WindowSize WindowSizeFollower::Change(const WindowSchedule::Resize& change) {
  const WindowSize former = std::exchange(size_, change.size);
  UseType(change.at);
  return former;
}

std::optional<Time> WindowSizeFollower::nextChange() const {
  const auto change =
      settings_.windows ? settings_.windows->NextResize(settings_.slot, sizedAt_) : std::nullopt;
  return change ? std::optional(change->at) : std::nullopt;
}

ComPtr<IMediaSample> WindowSizeFollower::Resized(IMediaSample* sample, const WindowSize& size) {
  Time start = 0;
  Time stop = 0;
  sample->GetTime(&start, &stop);
  const ComPtr<IMediaSample> resized = video_.NewFrame(start, stop, false, frameBytes());
  BYTE* from = nullptr;
  BYTE* to = nullptr;
  if (!resized || FAILED(sample->GetPointer(&from)) || FAILED(resized->GetPointer(&to))) {
    return nullptr;
  }
  try {
    scaler_.Scale({from, static_cast<std::size_t>(FrameBytes(size.width, size.height))}, size.width,
                  size.height, {to, static_cast<std::size_t>(frameBytes())}, size_.width,
                  size_.height);
  } catch (const ffmpeg::Error&) {
    return nullptr;
  }
  resized->SetSyncPoint(TRUE);
  return resized;
}

}  // namespace host
