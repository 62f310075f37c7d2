#include "host/output/latest_frame.h"

#include <cstdint>
#include <vector>

#include "host/output/snapshot.h"

namespace host {

namespace {

constexpr std::chrono::seconds kLimit{1};

}  // namespace

void LatestFrame::Take(const ComPtr<IMediaSample>& frame) {
  if (!isWanted_.load(std::memory_order_relaxed)) {
    return;
  }
  {
    const os::MutexLock guard(lock_);
    if (!isWanted_.load(std::memory_order_relaxed)) {
      return;  // the one who asked has just ended its wait
    }
    frame_ = frame;
    isWanted_.store(false, std::memory_order_relaxed);
  }
  taken_.NotifyOne();
}

ComPtr<IMediaSample> LatestFrame::Next() {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  const os::MutexLock guard(lock_);
  isWanted_.store(true, std::memory_order_relaxed);
  while (!frame_ && taken_.WaitUntil(lock_, deadline)) {
  }
  isWanted_.store(false, std::memory_order_relaxed);
  ComPtr<IMediaSample> frame = frame_;
  frame_ = nullptr;
  return frame;
}

std::optional<std::string> LatestFrame::Jpeg(const config::Canvas& canvas,
                                             const std::optional<config::Window>& part,
                                             std::optional<std::pair<int, int>> size) {
  std::vector<std::uint8_t> pixels;
  {
    const ComPtr<IMediaSample> frame = Next();
    BYTE* start = nullptr;
    if (!frame || FAILED(frame->GetPointer(&start))) {
      return std::nullopt;
    }
    pixels.assign(start, start + frame->GetActualDataLength());
  }
  return EncodeJpeg(pixels, canvas.width, canvas.height,
                    part.value_or(config::Window{0, 0, canvas.width, canvas.height}),
                    canvas.pixelAspect(), size);
}

}  // namespace host
