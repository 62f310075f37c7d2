// Preview: the composed frames in a small size, encoded while somebody watches.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/output/fragments.h"
#include "host/output/video_encoder.h"
#include "host/units.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// Has a thread of low priority that takes the newest frame, scales it and encodes it as H.264,
// without reordering: one fragment for each frame. A new frame replaces one that still waits. The
// encoder is opened for the first viewer and freed when the last one has left. There is a keyframe
// every second; a viewer that joins gets one at once, but no more than one in a second is made for
// that.
//
// Take is the composition thread's; the rest may be called by any thread.
class Preview {
 public:
  struct Settings {
    config::Canvas canvas;
    config::PreviewOptions options;
    std::function<void(const std::string&)> say;  // a message for the log; the preview's thread
  };
  struct Status {
    std::size_t viewers = 0;
    bool isEncoding = false;
    std::uint64_t frames = 0;  // encoded so far
  };

  explicit Preview(Settings settings);
  ~Preview();
  Preview(const Preview&) = delete;
  Preview& operator=(const Preview&) = delete;

  // Every composed frame; returns at once. No more than two are kept, the one that waits and the
  // one that is being scaled.
  void Take(const ComPtr<IMediaSample>& frame, Time start);
  // Nobody may subscribe while the preview is destroyed, or later.
  const std::shared_ptr<FragmentFeed>& feed() const { return feed_; }
  Status status() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct QueuedFrame {
    ComPtr<IMediaSample> sample;
    Time start = 0;
    std::uint64_t number = 0;
  };
  // Exists while there are viewers.
  struct Encoding;

  void Join();
  void Say(const std::string& what) const;
  void Run();
  void WaitForViewer();
  // None when the preview ends or the last viewer has left.
  std::optional<QueuedFrame> Next();
  // Releases the frame as soon as it is scaled.
  void Encode(QueuedFrame& queued);

  const Settings settings_;
  const Ratio frameRate_;
  std::optional<Time> first_;  // start of the wall's first frame; composition thread
  std::int64_t taken_ = -1;    // on the grid of the preview's frames; composition thread
  std::atomic<bool> isEncoding_{false};
  std::atomic<std::uint64_t> frames_{0};
  std::atomic<bool> wantsKeyframe_{false};
  std::unique_ptr<Encoding> encoding_;  // the preview's thread
  os::Mutex lock_;
  os::ConditionVariable changed_;
  QueuedFrame waiting_ GUARDED_BY(lock_);
  bool ends_ GUARDED_BY(lock_) = false;
  std::shared_ptr<FragmentFeed> feed_;
  std::unique_ptr<os::Thread> thread_;
};

// The largest size of the canvas's shape that fits, no larger than the canvas: even numbers of
// square pixels, width and height.
std::pair<int, int> PreviewSize(const config::Canvas& canvas,
                                const config::PreviewOptions& options);

}  // namespace host
