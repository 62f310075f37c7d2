// SnapshotFrame: the frame of a run that becomes a picture file.
#pragma once

#include <cmath>
#include <filesystem>
#include <mutex>
#include <optional>

#include "host/config/wall.h"
#include "host/output/snapshot.h"
#include "host/units.h"
#include "platform/com/com_ptr.h"
#include "platform/dshow/samples.h"

namespace host::cli {

// The last frame, or the first one at or after a moment. Taken on the composition thread, written
// by the application's; one lock.
class SnapshotFrame {
 public:
  // at: seconds after the start.
  explicit SnapshotFrame(std::optional<double> at) {
    if (at.has_value()) {
      at_ = static_cast<Time>(std::llround(*at * kSecond));
    }
  }

  void Take(const ComPtr<IMediaSample>& frame, Time start) {
    ComPtr<IMediaSample> former;  // released without the lock
    const std::lock_guard guard(lock_);
    if (!at_.has_value() || !frame_ || taken_ < *at_) {
      former = frame_;
      frame_ = frame;
      taken_ = start;
    }
  }

  // Throws when the file cannot be written; false when there never was a frame.
  bool Write(const std::filesystem::path& file, const config::Canvas& canvas) {
    const std::lock_guard guard(lock_);
    BYTE* pixels = nullptr;
    if (!frame_ || FAILED(frame_->GetPointer(&pixels))) {
      return false;
    }
    WriteSnapshot(file, {pixels, static_cast<std::size_t>(frame_->GetActualDataLength())},
                  canvas.width, canvas.height, canvas.pixelAspect());
    return true;
  }

 private:
  std::optional<Time> at_;
  std::mutex lock_;
  ComPtr<IMediaSample> frame_;  // guarded by lock_
  Time taken_ = 0;              // guarded by lock_
};

}  // namespace host::cli
