// The background behind the windows, which is the wall's clock in the graph: the picture
// (MakeBackground), the source filter that sends it for every frame (BackgroundSource), and the
// watch for a frame to leave the composer (FrameWatch).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/config/wall.h"
#include "host/feed/feed_pin.h"
#include "host/units.h"
#include "log/i_log_perf.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// The background of the wall file as a packed YV12 picture of the canvas's size. Throws MediaError
// or ffmpeg::Error when a picture file cannot be used.
std::vector<std::uint8_t> MakeBackground(const config::Canvas& canvas);
// The same within a limited time. A live wall does without a picture whose mount is dead, and logs
// it; a rendered one throws MediaError. logger may be null.
std::vector<std::uint8_t> LoadBackground(const config::Canvas& canvas, bool live,
                                         qorp::log::ILogPerf* logger);

// Packed YV12 pictures in BT.601 studio range, width and height even.
std::vector<std::uint8_t> ColourBackground(int width, int height, config::Rgb colour);
// From top at the first row to bottom at the last one.
std::vector<std::uint8_t> GradientBackground(int width, int height, config::Rgb top,
                                             config::Rgb bottom);
// A picture file, scaled over the whole canvas with its aspect kept, cut at the edges; of a video
// the first frame. Throws MediaError.
std::vector<std::uint8_t> FileBackground(int width, int height, Ratio pixelAspect,
                                         const std::filesystem::path& file);

// Waits until a frame has come out of the composer, or its buffer has come back because the frame
// was dropped. One frame is watched at a time. The thread that sends frames calls Expect and Wait,
// the composition thread Delivered, threads that release buffers Returned, and any thread the rest.
class FrameWatch {
 public:
  // From going into the composer to coming out of it.
  struct Timing {
    std::uint64_t frames = 0;
    std::chrono::nanoseconds total{0};
    std::chrono::nanoseconds longest{0};
    std::chrono::nanoseconds mean() const {
      return frames > 0 ? total / static_cast<std::int64_t>(frames) : total;
    }
  };

  // Upper bounds of all buckets but the last, in seconds.
  static constexpr std::array kBounds{0.0005, 0.001, 0.0025, 0.005, 0.01,
                                      0.02,   0.04,  0.1,    0.25,  1.0};
  // Since the start.
  struct Totals {
    std::array<std::uint64_t, kBounds.size() + 1> buckets{};  // frames by how long they took
    std::chrono::nanoseconds total{0};
  };

  // buffer: the sample that holds the frame.
  void Expect(const void* buffer, Time start);
  void Delivered(Time start);
  void Returned(const void* buffer);
  // False when it takes longer than the limit.
  bool Wait(std::chrono::milliseconds limit);
  // Of the frames since the last call.
  Timing TakeTiming();
  Totals totals() const;

 private:
  mutable os::Mutex lock_;
  os::ConditionVariable done_;
  const void* buffer_ GUARDED_BY(lock_) = nullptr;
  Time start_ GUARDED_BY(lock_) = 0;
  bool pending_ GUARDED_BY(lock_) = false;
  std::chrono::steady_clock::time_point expectedAt_ GUARDED_BY(lock_);
  Timing timing_ GUARDED_BY(lock_);
  Totals totals_ GUARDED_BY(lock_);
};

// Sends copies of one picture, one for each frame of the wall, numbered from 0 and timestamped on
// the grid of the frame rate. Either the owner sends every frame (SendFrame), or the filter has a
// thread that sends them by a clock: a frame that comes too late is skipped and counted, never made
// up for.
//
// Owned by its graph and by the wall; application's thread but for the pacing thread.
class BackgroundSource final : public CBaseFilter {
 public:
  struct Settings {
    config::Canvas canvas;
    std::vector<std::uint8_t> picture;  // packed YV12 of its size
    std::shared_ptr<FrameWatch> watch;  // may be null
    std::function<void(Time)> sending;  // before each frame goes into the composer; may be null
  };
  struct Counters {
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> late{0};          // skipped: their time was over
    std::atomic<std::uint64_t> noFreeBuffer{0};  // skipped: every buffer was still in use
  };
  // How a running wall keeps time.
  struct Pacing {
    std::function<Time()> now;  // the wall's time
    // Waits until the wall's time has reached a moment; false when the wall stops.
    std::function<bool(Time)> waitUntil;
    std::function<void()> stopWaiting;
  };

  static ComPtr<BackgroundSource> Create(Settings settings);
  explicit BackgroundSource(Settings settings);
  ~BackgroundSource() override;

  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin_ : nullptr; }
  HRESULT Pause() override;
  HRESULT Run(REFERENCE_TIME start) override;
  HRESULT Stop() override;

  FeedPin& pin() { return pin_; }
  // Before the filter runs: frames are sent by a thread of the filter, while it runs.
  void PaceBy(Pacing pacing) { pacing_ = std::move(pacing); }
  // Sends frame n; waits for a free buffer. False when the filter stops.
  bool SendFrame(std::int64_t frame);

  const Counters& counters() const { return counters_; }
  // Start of the frame whose sending began last; 0 before the first. Any thread.
  Time latestFrame() const { return sending_; }
  // Start of the frame that is the composer's present time; 0 before the first. Waits while a frame
  // is being sent. Any thread but the one that sends.
  Time presentFrame() const;

 private:
  bool Send(std::int64_t frame, bool wait);
  void Pace();
  void EndPacing();

  const Settings settings_;
  CCritSec lock_;
  FeedPin pin_;
  Pacing pacing_;
  std::unique_ptr<os::Thread> thread_;  // application's thread
  std::atomic<bool> pacingEnds_{false};
  std::int64_t nextFrame_ = 0;  // pacing thread; kept from run to run
  Counters counters_;
  std::atomic<Time> sending_{0};  // start of the frame whose sending began last ...
  std::atomic<Time> sent_{0};     // ... and of the one whose sending ended last
};

}  // namespace host
