#include "host/channel/window_feed.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <utility>

#include "host/ffmpeg/error.h"
#include "platform/baseclasses/unknown_base.h"

namespace host {
namespace {

constexpr Time kTypedFor = 2 * kSecond;
// At 78 frames the composer releases some and anchors the channel again.
constexpr std::size_t kMaxWaiting = 76;

// The composer takes the timestamp of a discontinuity for its present time, and shows that frame a
// fixed latency later. A wall with a shorter delay anchors its channels with a timestamp that is
// ahead by the difference, so that everything else is shown earlier by as much. With that timestamp
// the anchor itself would be shown in place of a later frame; so it is moved to its own time once
// it has anchored the channel.
//
// A frame of the video pin's allocator with timestamps of its own, which the composer only reads.
// Reference-counted; the streaming thread moves its time while the composition thread reads it.
class AnchorSample final : public CUnknown, public IMediaSample {
 public:
  DECLARE_IUNKNOWN

  // start: the first timestamp. Throws std::bad_alloc.
  static ComPtr<AnchorSample> Create(ComPtr<IMediaSample> frame, Time start) {
    return ComPtr<AnchorSample>(std::make_unique<AnchorSample>(std::move(frame), start).release());
  }
  AnchorSample(ComPtr<IMediaSample> frame, Time start)
      : CUnknown("anchor sample", nullptr), frame_(std::move(frame)), start_(start) {}

  void MoveTo(Time start) { start_ = start; }

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    return iid == IID_IMediaSample ? GetInterface(static_cast<IMediaSample*>(this), object)
                                   : CUnknown::NonDelegatingQueryInterface(iid, object);
  }

  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    if (start == nullptr || stop == nullptr) {
      return E_POINTER;
    }
    *start = start_;
    *stop = *start + 1;
    return S_OK;
  }
  HRESULT SetTime(REFERENCE_TIME* /*start*/, REFERENCE_TIME* /*stop*/) override {
    return E_NOTIMPL;
  }

  HRESULT GetPointer(BYTE** buffer) override { return frame_->GetPointer(buffer); }
  LONG GetSize() override { return frame_->GetSize(); }
  HRESULT IsSyncPoint() override { return frame_->IsSyncPoint(); }
  HRESULT SetSyncPoint(BOOL is) override { return frame_->SetSyncPoint(is); }
  HRESULT IsPreroll() override { return frame_->IsPreroll(); }
  HRESULT SetPreroll(BOOL is) override { return frame_->SetPreroll(is); }
  LONG GetActualDataLength() override { return frame_->GetActualDataLength(); }
  HRESULT SetActualDataLength(LONG length) override { return frame_->SetActualDataLength(length); }
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override { return frame_->GetMediaType(type); }
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override { return frame_->SetMediaType(type); }
  HRESULT IsDiscontinuity() override { return frame_->IsDiscontinuity(); }
  HRESULT SetDiscontinuity(BOOL is) override { return frame_->SetDiscontinuity(is); }
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return frame_->GetMediaTime(start, stop);
  }
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return frame_->SetMediaTime(start, stop);
  }

 private:
  const ComPtr<IMediaSample> frame_;
  std::atomic<Time> start_;
};

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
  // These may be the first frames of the window.
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
  ComPtr<IMediaSample> resized = video_.NewFrame(start, stop, false, frameBytes());
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

WindowFeed::WindowFeed(const ChannelSettings& settings, Pins pins)
    : settings_(settings),
      pins_(pins),
      frames_(2, settings_.delay()),
      levels_(1, settings_.delay()),
      size_(settings_, pins_.video) {}

void WindowFeed::Begin(Time now, const std::optional<Sent>& before, const WindowSize& size) {
  const Sent none{WindowFill(2, settings_.delay()), WindowFill(1, settings_.delay())};
  const Sent& sent = before ? *before : none;
  frames_ = sent.frames;
  levels_ = sent.levels;
  isAnchored_ = sent.isAnchored;
  waiting_.clear();
  size_.Begin(now, size);
}

ComPtr<IMediaSample> WindowFeed::CopyOf(const std::uint8_t* pixels, LONG bytes, Time start,
                                        Time stop) {
  ComPtr<IMediaSample> copy = pins_.video.NewFrame(start, stop, false, bytes);
  BYTE* to = nullptr;
  if (!copy || FAILED(copy->GetPointer(&to))) {
    return nullptr;
  }
  std::memcpy(to, pixels, static_cast<std::size_t>(bytes));
  copy->SetActualDataLength(bytes);
  return copy;
}

bool WindowFeed::needsAnchor() {
  return frames_.begun() && !isFull() && (!isAnchored_ || frames_.IsDry(settings_.latestFrame()));
}

Time WindowFeed::anchorTime() const {
  return std::max(frames_.latest(), settings_.latestFrame() - settings_.delay());
}

void WindowFeed::Anchor(const BYTE* pixels, Time time, Time now) {
  if (settings_.logger != nullptr) {
    settings_.logger->IncrementResync();
  }
  AnchorAt(time, pixels, now);
}

void WindowFeed::SendFrame(IMediaSample* sample, Time start, Time stop, Time now) {
  if (!frames_.begun()) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    AnchorAt(std::nullopt, pixels, now);
    if (!frames_.Takes(start)) {
      return;
    }
  }
  if (isFull()) {
    isAnchored_ = false;
  } else {
    sample->SetTime(&start, &stop);
    Deliver(sample, now);
    // The composer may have shown a frame since the channel was seen to be anchored.
    isAnchored_ = isAnchored_ && !frames_.IsDry(settings_.latestFrame());
  }
  NoteSent(start);
}

void WindowFeed::NoteSent(Time time) {
  frames_.Sent(time);
  waiting_.push_back(time);
}

bool WindowFeed::isFull() {
  const Time shown = settings_.latestFrame() - settings_.delay();
  while (!waiting_.empty() && waiting_.front() < shown) {
    waiting_.pop_front();
  }
  return waiting_.size() >= kMaxWaiting;
}

void WindowFeed::SendAlarm(const VideoAlarmRecord& record, Time start, Time stop) {
  pins_.videoAlarm.Send(ToWire(record), start, stop);
}

void WindowFeed::SendLevels(const AudioAlarmRecord& record, Time start, Time stop) {
  if (levels_.Takes(start)) {
    levels_.Sent(start);
    pins_.audioAlarm.Send(ToWire(record), start, stop);
  }
}

// The composer anchors a channel with a frame that finds fewer than two others waiting, and shows
// everything its own latency later. So copies of a frame are sent whose timestamp is the composer's
// present time, plus the difference between that latency and the wall's delay: then the channel's
// times are exactly the wall's, and its frames are shown the delay after them.
void WindowFeed::AnchorAt(std::optional<Time> time, const BYTE* pixels, Time now) {
  const Time saved = config::kMaxDelay - settings_.delay();
  const LONG size = size_.frameBytes();
  isAnchored_ = false;
  const Time present = settings_.presentFrame();
  for (int copies = 0; copies < 2; ++copies) {
    const ComPtr<IMediaSample> copy = CopyOf(pixels, size, present, present + 1);
    if (!copy) {
      return;
    }
    copy->SetDiscontinuity(TRUE);
    // The composer's pin does not wrap a sample that has a type, so the anchor can be moved.
    pins_.video.AttachType(*copy);
    const ComPtr<AnchorSample> anchor = AnchorSample::Create(copy, present + saved);
    Deliver(anchor.Get(), now);
    anchor->MoveTo(time.value_or(present));
    NoteSent(time.value_or(present));
  }
  // A background frame that came meanwhile has moved the present time.
  isAnchored_ = settings_.latestFrame() == present;
}

void WindowFeed::Deliver(IMediaSample* sample, Time now) {
  if (size_.needsType(now) || (settings_.wantsType && settings_.wantsType())) {
    pins_.video.AttachType(*sample);
  }
  pins_.video.Deliver(sample);
  if (settings_.frameSent) {
    settings_.frameSent();
  }
}

}  // namespace host
