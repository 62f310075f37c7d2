#include "host/session/background.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <optional>
#include <utility>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/rational.h>
}

#include "host/channel/source/media_reader.h"
#include "host/channel/video/frame_converter.h"
#include "host/feed/feed_pin.h"
#include "host/ffmpeg/error.h"
#include "platform/baseclasses/media_sample.h"
#include "platform/os/thread.h"
#include "util/yv12.h"

namespace host {

namespace {

// How long the file system of a picture may take to answer.
constexpr std::chrono::seconds kPictureLimit{5};

// The largest term of a pixel aspect.
constexpr int kMaxAspectTerm = 1 << 20;

struct Ycbcr {
  double y;
  double cb;
  double cr;
};

Ycbcr ToYcbcr(config::Rgb colour) {
  const double r = colour.red / 255.0;
  const double g = colour.green / 255.0;
  const double b = colour.blue / 255.0;
  const double luma = 0.299 * r + 0.587 * g + 0.114 * b;
  return {16 + 219 * luma, 128 + 224 * (b - luma) / 1.772, 128 + 224 * (r - luma) / 1.402};
}

// A value between two samples, spread over the neighbours of (x, y) so that a slow gradient shows
// no bands.
std::uint8_t Dithered(double value, int x, int y) {
  constexpr double kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
  return static_cast<std::uint8_t>(std::floor(value + (kBayer[y & 3][x & 3] + 0.5) / 16));
}

// Copies a plane of sourceWidth columns from (x, y) on.
void CropPlane(const std::uint8_t* source, int sourceWidth, int x, int y, int width, int height,
               std::uint8_t* target) {
  for (int row = 0; row < height; ++row) {
    std::copy_n(source + static_cast<std::ptrdiff_t>(y + row) * sourceWidth + x, width,
                target + static_cast<std::ptrdiff_t>(row) * width);
  }
}

int EvenAtLeast(double value) {
  return static_cast<int>(std::ceil(value / 2 - 0.01)) * 2;
}

// The middle part of `all` pixels: `wanted` as an even number, or all. before, after: cut off.
void CentredPart(double wanted, int all, std::size_t& before, std::size_t& after) {
  const int part = wanted < all ? std::min(all, std::max(2, EvenAtLeast(wanted))) : all;
  const auto rest = static_cast<std::size_t>(all - part);
  before = rest / 4 * 2;
  after = rest - before;
}

// Cuts off what lies outside of a canvas of that aspect (width to height as shown), so that what is
// scaled is not much larger than the canvas, whatever the shape of the frame and of its pixels.
// Returns the aspect of the rest, at most four times as wide or high as the canvas's.
double CropToAspect(AVFrame& frame, Ratio pixelAspect, double aspect) {
  const double pixel = pixelAspect.value();
  CentredPart(frame.height * aspect / pixel, frame.width, frame.crop_left, frame.crop_right);
  CentredPart(frame.width * pixel / aspect, frame.height, frame.crop_top, frame.crop_bottom);
  ffmpeg::Check(av_frame_apply_cropping(&frame, AV_FRAME_CROP_UNALIGNED), "cannot crop it");
  return std::clamp(frame.width * pixel / frame.height, aspect / 4, aspect * 4);
}

constexpr CLSID kBackgroundSourceClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x02}};

// Notifies the watch of every buffer that comes back.
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

std::vector<std::uint8_t> MakeBackground(const config::Canvas& canvas) {
  const config::Background& background = canvas.background;
  switch (background.kind) {
    case config::Background::Kind::kColour:
      return ColourBackground(canvas.width, canvas.height, background.top);
    case config::Background::Kind::kGradient:
      return GradientBackground(canvas.width, canvas.height, background.top, background.bottom);
    case config::Background::Kind::kPicture:
      break;
  }
  return FileBackground(canvas.width, canvas.height, canvas.pixelAspect(), background.picture);
}

std::vector<std::uint8_t> ColourBackground(int width, int height, config::Rgb colour) {
  return GradientBackground(width, height, colour, colour);
}

std::vector<std::uint8_t> GradientBackground(int width, int height, config::Rgb top,
                                             config::Rgb bottom) {
  const Ycbcr from = ToYcbcr(top);
  const Ycbcr to = ToYcbcr(bottom);
  const bool flat = top == bottom;
  std::vector<std::uint8_t> picture;
  picture.reserve(static_cast<std::size_t>(qorp::PictureBytes(width, height)));
  const auto addPlane = [&](int columns, int rows, double first, double last) {
    for (int y = 0; y < rows; ++y) {
      const double value = rows > 1 ? first + (last - first) * y / (rows - 1) : first;
      for (int x = 0; x < columns; ++x) {
        picture.push_back(flat ? static_cast<std::uint8_t>(std::lround(value))
                               : Dithered(value, x, y));
      }
    }
  };
  addPlane(width, height, from.y, to.y);
  addPlane(width / 2, height / 2, from.cr, to.cr);
  addPlane(width / 2, height / 2, from.cb, to.cb);
  return picture;
}

std::vector<std::uint8_t> FileBackground(int width, int height, Ratio pixelAspect,
                                         const std::filesystem::path& file) {
  MediaReader::Settings settings;
  settings.source = file.string();
  settings.options.audio.enabled = false;
  MediaReader reader(settings);
  reader.Open();
  MediaItem item = reader.Read();
  while (!std::holds_alternative<DecodedFrame>(item)) {
    if (std::holds_alternative<EndOfMedia>(item)) {
      throw MediaError(MediaError::Kind::kNoStreams, "it holds no picture", file.string());
    }
    item = reader.Read();
  }
  auto& picture = std::get<DecodedFrame>(item);
  AVFrame& frame = *picture.frame;
  const bool swapsSides = picture.orientation.swapsSides();
  const double wanted = pixelAspect.value() * width / height;
  std::vector<std::uint8_t> whole;
  FrameConverter::Settings cover;
  try {
    const double stored =
        CropToAspect(frame, reader.info().video->pixelAspect, swapsSides ? 1 / wanted : wanted);
    frame.sample_aspect_ratio = av_d2q(stored * frame.height / frame.width, kMaxAspectTerm);
    // In pixels of the canvas.
    const double aspect = (swapsSides ? 1 / stored : stored) / pixelAspect.value();
    cover.width = std::max(width, EvenAtLeast(height * aspect));
    cover.height = std::max(height, EvenAtLeast(width / aspect));
    cover.canvasPixelAspect = pixelAspect;
    FrameConverter converter(cover);
    converter.Push(std::move(picture));
    converter.Finish();
    whole.resize(converter.bufferSize());
    converter.Write(whole);
  } catch (const ffmpeg::Error& error) {
    throw MediaError(MediaError::Kind::kFailed, error.what(), file.string());
  }

  std::vector<std::uint8_t> canvas(static_cast<std::size_t>(qorp::PictureBytes(width, height)));
  const int x = (cover.width - width) / 4 * 2;
  const int y = (cover.height - height) / 4 * 2;
  const qorp::ConstYv12Picture from{whole.data(), cover.width, cover.height};
  const qorp::Yv12Picture to{canvas.data(), width, height};
  CropPlane(from.Y(), from.width, x, y, to.width, to.height, to.Y());
  CropPlane(from.V(), from.ChromaWidth(), x / 2, y / 2, to.ChromaWidth(), to.ChromaHeight(),
            to.V());
  CropPlane(from.U(), from.ChromaWidth(), x / 2, y / 2, to.ChromaWidth(), to.ChromaHeight(),
            to.U());
  return canvas;
}

std::vector<std::uint8_t> LoadBackground(const config::Canvas& canvas, bool live,
                                         qorp::log::ILogPerf* logger) {
  auto picture = os::CallWithin<std::vector<std::uint8_t>>(
      kPictureLimit, [canvas] { return MakeBackground(canvas); }, "background file");
  if (picture) {
    return std::move(*picture);
  }
  const std::string file = canvas.background.picture.string();
  if (!live) {
    throw MediaError(MediaError::Kind::kTimedOut, "no answer from its file system", file);
  }
  if (logger != nullptr) {
    logger->log(qorp::log::kError,
                "no answer from the file system of the background picture %s; the wall goes on "
                "without it",
                file.c_str());
  }
  return ColourBackground(canvas.width, canvas.height, {});
}

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
           VideoType(settings_.canvas.width, settings_.canvas.height, settings_.canvas.frameRate,
                     settings_.canvas.aspect),
           {1, FrameBytes(settings_.canvas.width, settings_.canvas.height)}) {
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
  const Ratio rate = settings_.canvas.frameRate;
  const Time frameTime = FrameDuration(rate);
  // Frames whose time is over when the wall starts are not sent.
  nextFrame_ = std::max(nextFrame_, FrameAt(pacing_.now() - 1, rate) + 1);
  while (!pacingEnds_) {
    const Time due = FrameStart(nextFrame_, rate);
    if (!pacing_.waitUntil(due) || pacingEnds_) {
      return;
    }
    if (const Time now = pacing_.now(); now - due >= frameTime) {
      // Skips to the frame that is due now, however long the machine was suspended.
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

Time BackgroundSource::presentFrame() const {
  Time sent = sent_;
  while (sending_ != sent) {
    sent_.wait(sent);
    sent = sent_;
  }
  return sent;
}

bool BackgroundSource::Send(std::int64_t frame, bool wait) {
  const Time start = FrameStart(frame, settings_.canvas.frameRate);
  const ComPtr<IMediaSample> sample =
      pin_.NewSample(start, FrameStart(frame + 1, settings_.canvas.frameRate), wait);
  BYTE* canvas = nullptr;
  if (!sample || FAILED(sample->GetPointer(&canvas))) {
    return false;
  }
  // The composer draws into the buffer: every frame starts from the background picture again.
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
  sent_.notify_all();
  if (!sent) {
    return false;
  }
  ++counters_.sent;
  return true;
}

}  // namespace host
