// Makes the frames of a source into the frames of its window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/channel/source/media_info.h"
#include "host/channel/video/colour_matrix.h"
#include "host/channel/video/frame_filter.h"
#include "host/channel/video/frame_fit.h"
#include "host/channel/video/rate_limiter.h"
#include "host/channel/video/wide_colour.h"
#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// Every frame that comes out has exactly the size of the window, whatever comes in, so that a
// source that changes its format never moves anything on the wall: the source's frame is
// deinterlaced and turned upright where needed, thinned to the rate of the canvas, scaled with its
// aspect kept, centred on black, and converted to BT.601 studio range, of high dynamic range and
// wide colours too. The layout is packed YV12:
// Y, then V, then U, the stride of each plane being its width.
//
// Use: Push a frame, then Write as long as Next gives one. Owned and called by one channel on its
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

  // Takes the next frame of the source. Throws ffmpeg::Error when it cannot be handled; the
  // frame is then lost, the converter stays usable.
  void Push(DecodedFrame picture);
  // The source has ended: what the deinterlacer holds back becomes ready. A new source may follow.
  void Finish();

  // The times of the frame that Write gives next; null when there is none.
  const FrameTimes* Next() const { return ready_.empty() ? nullptr : &ready_.front().times; }
  // Draws that frame into the buffer (bufferSize() bytes) and drops it. Throws ffmpeg::Error when
  // the source's format cannot be converted, after dropping it too.
  void Write(std::span<std::uint8_t> buffer);
  // Drops that frame undrawn, when there is no buffer for it.
  void Drop() { ready_.pop_front(); }

  std::size_t bufferSize() const;
  // Whether frames are being deinterlaced.
  bool deinterlacing() const { return filter_ && deinterlaceMode_ != nullptr; }

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
    Orientation orientation{};  // of what comes in; upright for the scaler

    bool operator==(const SourceFormat&) const = default;
  };

  static SourceFormat FormatOf(const AVFrame& frame);
  const char* WantedDeinterlacing(const AVFrame& frame, Time duration) const;
  void Filter(DecodedFrame picture);
  void UpdateFilter(const DecodedFrame& picture);
  void FinishFilter();
  void Filtered(ffmpeg::Frame frame);
  void MakeReady(ffmpeg::Frame frame, const FrameTimes& times);
  void UpdateScaler(const AVFrame& frame);
  void MakeScaler(const SourceFormat& format);
  // The frame in the size of the fit and in the wall's colours. Null when that cannot be done:
  // then there is a scaler instead.
  ffmpeg::Frame ConvertWideColour(const AVFrame& frame);

  const Settings settings_;
  RateLimiter limiter_;
  std::deque<ConvertedFrame> ready_;

  std::optional<SourceFormat> filterFormat_;
  std::unique_ptr<FrameFilter> filter_;
  const char* deinterlaceMode_ = nullptr;  // of the filter, null: none
  Time filteredDuration_ = 0;
  bool isDiscontinuous_ = false;  // the next frame that the filter gives

  std::optional<SourceFormat> scalerFormat_;
  FitRect fit_;
  ffmpeg::Scaler scaler_;  // null: the frame has the right size and format already
  ffmpeg::Frame scaled_;   // aligned rows, which the scaler needs
  std::optional<ColourMatrix> matrix_;
  std::unique_ptr<FrameFilter> colourFilter_;  // for wide colours, instead of these three
};

}  // namespace host
