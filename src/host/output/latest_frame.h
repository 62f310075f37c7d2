// LatestFrame: composed frames as JPEG on request, while the wall runs.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "host/config/wall.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/mutex.h"

namespace host {

// Keeps no frame that nobody asks for, and none for longer than it takes to copy it: the buffers of
// the canvas are few.
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
