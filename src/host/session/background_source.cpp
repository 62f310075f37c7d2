#include "host/session/background_source.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/feed/feed_pin.h"
#include "platform/baseclasses/media_sample.h"

namespace host {
namespace {

constexpr CLSID kBackgroundSourceClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x02}};

// Tells the watch of every buffer that comes back.
class WatchedAllocator final : public CMemAllocator {
 public:
  explicit WatchedAllocator(std::shared_ptr<FrameWatch> watch)
      : CMemAllocator("background allocator", nullptr, nullptr), watch_(std::move(watch)) {}

  HRESULT ReleaseBuffer(IMediaSample* sample) override {
    // First: once the buffer is free, it may be that of the next frame that is watched.
    watch_->Returned(sample);
    return CMemAllocator::ReleaseBuffer(sample);
  }

 private:
  const std::shared_ptr<FrameWatch> watch_;
};

}  // namespace

void FrameWatch::Expect(const void* buffer, Time start) {
  const os::MutexLock guard(lock_);
  buffer_ = buffer;
  start_ = start;
  pending_ = true;
  expectedAt_ = std::chrono::steady_clock::now();
}

void FrameWatch::Delivered(Time start) {
  {
    const os::MutexLock guard(lock_);
    if (!pending_ || start != start_) {
      return;
    }
    pending_ = false;
    const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - expectedAt_;
    ++timing_.frames;
    timing_.total += took;
    timing_.longest = std::max(timing_.longest, took);
    const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(),
                                        std::chrono::duration<double>(took).count());
    ++totals_.buckets[static_cast<std::size_t>(bound - kBounds.begin())];
    totals_.total += took;
  }
  done_.NotifyAll();
}

FrameWatch::Timing FrameWatch::TakeTiming() {
  const os::MutexLock guard(lock_);
  return std::exchange(timing_, Timing());
}

FrameWatch::Totals FrameWatch::totals() const {
  const os::MutexLock guard(lock_);
  return totals_;
}

void FrameWatch::Returned(const void* buffer) {
  {
    const os::MutexLock guard(lock_);
    if (!pending_ || buffer != buffer_) {
      return;
    }
    pending_ = false;
  }
  done_.NotifyAll();
}

bool FrameWatch::Wait(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const os::MutexLock guard(lock_);
  while (pending_ && done_.WaitUntil(lock_, deadline)) {
  }
  return !pending_;
}

ComPtr<BackgroundSource> BackgroundSource::Create(Settings settings) {
  return ComPtr<BackgroundSource>(
      std::make_unique<BackgroundSource>(std::move(settings)).release());
}

BackgroundSource::BackgroundSource(Settings settings)
    : CBaseFilter("background source", nullptr, &lock_, kBackgroundSourceClass),
      settings_(std::move(settings)),
      pin_(this, &lock_, u"Background",
           VideoType(settings_.width, settings_.height, settings_.frameRate, settings_.aspect),
           {1, FrameBytes(settings_.width, settings_.height)}) {
  if (settings_.watch != nullptr) {
    pin_.UseAllocator(
        ComPtr<IMemAllocator>(std::make_unique<WatchedAllocator>(settings_.watch).release()));
  }
}

BackgroundSource::~BackgroundSource() {
  EndPacing();
}

HRESULT BackgroundSource::Pause() {
  EndPacing();
  return CBaseFilter::Pause();
}

HRESULT BackgroundSource::Run(REFERENCE_TIME start) {
  const HRESULT hr = CBaseFilter::Run(start);
  if (SUCCEEDED(hr) && pacing_.now && thread_ == nullptr) {
    pacingEnds_ = false;
    thread_ = std::make_unique<os::Thread>([this] { Pace(); }, "background");
  }
  return hr;
}

HRESULT BackgroundSource::Stop() {
  EndPacing();
  return CBaseFilter::Stop();
}

void BackgroundSource::EndPacing() {
  if (thread_ != nullptr) {
    pacingEnds_ = true;
    pacing_.stopWaiting();
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

void BackgroundSource::Pace() {
  const Ratio rate = settings_.frameRate;
  const Time frameTime = FrameDuration(rate);
  // What lies behind us when the wall starts was never to be shown.
  nextFrame_ = std::max(nextFrame_, FrameAt(pacing_.now() - 1, rate) + 1);
  while (!pacingEnds_) {
    const Time due = FrameStart(nextFrame_, rate);
    if (!pacing_.waitUntil(due) || pacingEnds_) {
      return;
    }
    if (const Time now = pacing_.now(); now - due >= frameTime) {
      // At once, however long the machine stood: on with the frame whose time it is.
      const std::int64_t current = std::max(FrameAt(now, rate), nextFrame_ + 1);
      counters_.late += static_cast<std::uint64_t>(current - nextFrame_);
      nextFrame_ = current;
      continue;
    }
    if (!Send(nextFrame_, false)) {
      ++counters_.noFreeBuffer;
    }
    ++nextFrame_;
  }
}

bool BackgroundSource::SendFrame(std::int64_t frame) {
  return Send(frame, true);
}

bool BackgroundSource::Send(std::int64_t frame, bool wait) {
  const Time start = FrameStart(frame, settings_.frameRate);
  const ComPtr<IMediaSample> sample =
      pin_.NewSample(start, FrameStart(frame + 1, settings_.frameRate), wait);
  BYTE* canvas = nullptr;
  if (!sample || FAILED(sample->GetPointer(&canvas))) {
    return false;
  }
  // Drawn over in place by the composer: every frame starts from the picture again.
  std::memcpy(canvas, settings_.picture.data(), settings_.picture.size());
  sample->SetActualDataLength(static_cast<LONG>(settings_.picture.size()));
  sample->SetSyncPoint(TRUE);
  if (settings_.watch != nullptr) {
    settings_.watch->Expect(sample.Get(), start);
  }
  if (settings_.sending) {
    settings_.sending(start);
  }
  sending_ = start;
  const bool sent = SUCCEEDED(pin_.Deliver(sample.Get()));
  sent_ = start;
  if (!sent) {
    return false;
  }
  ++counters_.sent;
  return true;
}

}  // namespace host
