// Pictures of single frames: PNG files, and JPEG on request while the wall runs.
#pragma once

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "host/config/wall.h"
#include "host/units.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/mutex.h"

namespace host {

// Writes a packed YV12 frame (Y, V, U, stride = width, BT.601 studio range, even size) as a PNG
// file. The file appears whole or not at all: it is written beside its place and then renamed. A
// frame whose pixels are not square is stretched in width to the shape in which it is seen. Throws
// ffmpeg::Error, or std::filesystem::filesystem_error when the file cannot be written.
void WriteSnapshot(const std::filesystem::path& file, std::span<const std::uint8_t> yv12, int width,
                   int height, Ratio pixelAspect = {1, 1});

// The part of such a frame that lies inside it, as the bytes of a JPEG file, in its own size or the
// one that is given as width and height. Throws ffmpeg::Error, and std::invalid_argument when
// nothing of the part lies inside.
std::string EncodeJpeg(std::span<const std::uint8_t> yv12, int width, int height,
                       const config::Window& part, Ratio pixelAspect = {1, 1},
                       std::optional<std::pair<int, int>> size = {});

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
    const os::MutexLock guard(lock_);
    if (!at_.has_value() || !frame_ || taken_ < *at_) {
      former = frame_;
      frame_ = frame;
      taken_ = start;
    }
  }

  // Throws when the file cannot be written; false when there never was a frame.
  bool Write(const std::filesystem::path& file, const config::Canvas& canvas) {
    const os::MutexLock guard(lock_);
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
  os::Mutex lock_;
  ComPtr<IMediaSample> frame_ GUARDED_BY(lock_);
  Time taken_ GUARDED_BY(lock_) = 0;
};

// Composed frames as JPEG on request. Keeps no frame without a request, and none for longer than it
// takes to copy it: the buffers of the canvas are few.
class LatestFrame {
 public:
  // Composition thread; returns at once.
  void Take(const ComPtr<IMediaSample>& frame);
  // The next frame, or a part of it in canvas pixels, in its own size or the one that is given as
  // width and height; none when there is no frame within a second. One thread at a time. Throws
  // ffmpeg::Error.
  std::optional<std::string> Jpeg(const config::Canvas& canvas,
                                  const std::optional<config::Window>& part,
                                  std::optional<std::pair<int, int>> size = {});

 private:
  ComPtr<IMediaSample> Next();

  std::atomic<bool> isWanted_{false};
  os::Mutex lock_;
  os::ConditionVariable taken_;
  ComPtr<IMediaSample> frame_ GUARDED_BY(lock_);
};

}  // namespace host
