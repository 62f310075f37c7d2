// FrameConverter: converts the frames of a source into those of its window.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/channel/source/media_info.h"
#include "host/channel/video/colour.h"
#include "host/channel/video/frame_filter.h"
#include "host/channel/video/scalers.h"
#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// In pixels of the window; all even.
struct FitRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  bool operator==(const FitRect&) const = default;
};

// The largest centred rectangle in a window (even size, at least 2x2) that shows a frame of
// width x height samples with this pixel aspect undistorted on canvas pixels of the aspect
// canvasAspect. A frame that is smaller than the window by two pixels or less fills it: such thin
// bars look like faults.
FitRect FitFrame(int width, int height, Ratio pixelAspect, int windowWidth, int windowHeight,
                 Ratio canvasAspect);

// Of a source that is faster than the canvas, passes one frame for each frame of the canvas: the
// nearest one, which the composer would choose among all. Canvas frames start at multiples of their
// duration here; so the source is placed on the wall's clock with an offset of whole frames. The
// source's frame interval is measured by its timestamps; if it is not faster than the canvas, every
// frame passes, in spite of jitter. No lock: one thread.
class RateLimiter {
 public:
  explicit RateLimiter(Ratio canvasRate)
      : rate_(canvasRate), period_(FrameDuration(canvasRate)), step_(period_) {}

  // Times never decrease, except after Restart.
  bool Pass(Time start) {
    if (started_) {
      step_ += (std::min(start - last_, period_) - step_) / 4;
    }
    const std::int64_t frame = NearestFrame(start, rate_);
    const bool slow = step_ >= period_ * 9 / 10;
    const bool nearest = frame > served_ && start - FrameStart(frame, rate_) >= -step_ / 2;
    const bool passes = !started_ || slow || nearest;
    started_ = true;
    last_ = start;
    if (passes) {
      served_ = std::max(served_, frame);
    }
    return passes;
  }

  // The next frame passes.
  void Restart() {
    started_ = false;
    served_ = std::numeric_limits<std::int64_t>::min();
  }

 private:
  const Ratio rate_;
  const Time period_;
  Time step_;  // from frame to frame of the source, at most the period
  bool started_ = false;
  Time last_ = 0;
  // Canvas frame of the latest frame that passed.
  std::int64_t served_ = std::numeric_limits<std::int64_t>::min();
};

// Every frame of the output has exactly the size of the window, so that a source that changes its
// format moves nothing on the wall. Frames are deinterlaced and turned upright where needed,
// dropped to the rate of the canvas, scaled with their aspect, centred on black, and converted to
// BT.601 studio range, also from high dynamic range and wide colours. The layout is packed YV12: Y,
// then V, then U, the stride of each plane being its width.
//
// Use: Push a frame, then Write while Next is not null. Owned and called by one channel on its
// thread; no lock.
class FrameConverter {
 public:
  struct Settings {
    int width = 0;  // of the window, in canvas pixels; even, at least 2
    int height = 0;
    Ratio canvasRate{25, 1};
    Ratio canvasPixelAspect{1, 1};
    config::DeinterlaceMode deinterlace = config::DeinterlaceMode::kOff;
  };

  struct FrameTimes {
    Time start = 0;
    Time duration = 0;
    bool discontinuity = false;
  };

  explicit FrameConverter(const Settings& settings);
  ~FrameConverter();

  // Takes the next frame of the source. Throws ffmpeg::Error when it cannot be processed; the frame
  // is then lost, and the converter can be used further.
  void Push(DecodedFrame decoded);
  // At the end of the source: what the deinterlacer holds back becomes ready. A new source may
  // follow.
  void Finish();

  // The times of the frame that Write gives next; null when there is none.
  const FrameTimes* Next() const { return ready_.empty() ? nullptr : &ready_.front().times; }
  // Draws that frame into the buffer (bufferSize() bytes) and drops it. Throws ffmpeg::Error when
  // the source's format cannot be converted, after dropping it too.
  void Write(std::span<std::uint8_t> buffer);
  // Drops that frame undrawn, when there is no buffer for it.
  void Drop() { ready_.pop_front(); }

  // The size of the window from the next frame on; even, at least 2x2.
  void Resize(int width, int height);
  std::size_t bufferSize() const;

 private:
  struct ConvertedFrame {
    ffmpeg::Frame frame;
    FrameTimes times;
  };
  // What scaler and filters are built for.
  struct SourceFormat {
    int width = 0;
    int height = 0;
    int pixelFormat = -1;
    Ratio pixelAspect{1, 1};
    int colourSpace = 0;
    int colourRange = 0;
    std::optional<WideColour> wideColour{};
    Orientation orientation{};  // of the input; upright for the scaler

    bool operator==(const SourceFormat&) const = default;
  };

  static SourceFormat FormatOf(const AVFrame& frame);
  const char* WantedDeinterlacing(const AVFrame& frame, Time duration) const;
  void Filter(DecodedFrame decoded);
  void UpdateFilter(const DecodedFrame& decoded);
  void FinishFilter();
  void Filtered(ffmpeg::Frame frame);
  void MakeReady(ffmpeg::Frame frame, const FrameTimes& times);
  void UpdateScaler(const AVFrame& frame);
  void MakeScaler(const SourceFormat& format);
  void MakeGeneralScaler(const SourceFormat& format, AVPixelFormat pixels, bool isFullRangeBitmap);
  // The frame in the size of fit_ and in the wall's colours. Null when this fails; then a scaler
  // has replaced the filter.
  ffmpeg::Frame ConvertWideColour(const AVFrame& frame);

  Settings settings_;
  RateLimiter limiter_;
  std::deque<ConvertedFrame> ready_;

  std::optional<SourceFormat> filterFormat_;
  std::unique_ptr<FrameFilter> filter_;
  const char* deinterlaceMode_ = nullptr;  // of the filter; null: none
  Time filteredDuration_ = 0;
  bool isDiscontinuous_ = false;  // for the next frame from the filter

  std::optional<SourceFormat> scalerFormat_;
  FitRect fit_;
  ffmpeg::Scaler scaler_;         // null if the frame fits already, or with ...
  std::optional<BoxScaler> box_;  // ... this one
  ffmpeg::Frame scaled_;          // with aligned rows, which the scaler needs
  std::optional<ColourMatrix> matrix_;
  std::unique_ptr<FrameFilter> colourFilter_;  // for wide colours, instead of scalers and scaled_
};

}  // namespace host
