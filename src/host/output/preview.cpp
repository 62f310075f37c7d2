#include "host/output/preview.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include "host/ffmpeg/error.h"
#include "util/yv12.h"

namespace host {

namespace {

constexpr Time kKeyframeInterval = kSecond;
constexpr double kQuality = 23;
constexpr std::chrono::milliseconds kRetry{1000};  // after a failure of the encoder
// How long it may take to notice that a viewer has left when no frame comes.
constexpr std::chrono::milliseconds kLookPeriod{500};
constexpr int kPixelsForOneThread = 1280 * 720;

VideoEncoder::Settings PreviewEncoder(int width, int height, Ratio frameRate,
                                      std::int64_t bitRate) {
  VideoEncoder::Settings encoder;
  encoder.width = width;
  encoder.height = height;
  encoder.frameRate = frameRate;
  encoder.codec = "libx264";
  encoder.preset = "veryfast";
  encoder.profile = "main";
  encoder.quality = kQuality;
  encoder.maxRate = bitRate;
  encoder.keyFrameInterval = kKeyframeInterval;
  encoder.sceneCuts = false;
  encoder.lowDelay = true;
  encoder.threads = width * height > kPixelsForOneThread ? 2 : 1;
  return encoder;
}

}  // namespace

std::pair<int, int> PreviewSize(const config::Canvas& canvas,
                                const config::PreviewOptions& options) {
  const double shown = canvas.width * canvas.pixelAspect().value();
  const double scale =
      std::min({1.0, options.width / shown, options.height / static_cast<double>(canvas.height)});
  const auto even = [](double size) {
    return std::max(2, 2 * static_cast<int>(std::lround(size / 2)));
  };
  return {even(shown * scale), even(canvas.height * scale)};
}

struct Preview::Encoding {
  Encoding(const config::Canvas& canvasOfWall, const VideoEncoder::Settings& settings)
      : canvas(canvasOfWall),
        frameDuration(FrameDuration(settings.frameRate)),
        encoder(settings),
        writer(*encoder.parameters()),
        scaled(ffmpeg::MakeFrame()),
        scaler(sws_getContext(canvas.width, canvas.height, AV_PIX_FMT_YUV420P, settings.width,
                              settings.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr,
                              nullptr)) {
    if (!scaler) {
      throw std::bad_alloc();
    }
    scaled->format = AV_PIX_FMT_YUV420P;
    scaled->width = settings.width;
    scaled->height = settings.height;
    ffmpeg::Check(av_frame_get_buffer(scaled.get(), 0), "cannot make a picture to encode");
  }

  // False when the sample holds no whole frame.
  bool Scale(const ComPtr<IMediaSample>& sample) {
    BYTE* start = nullptr;
    if (FAILED(sample->GetPointer(&start)) ||
        sample->GetActualDataLength() < qorp::PictureBytes(canvas.width, canvas.height)) {
      return false;
    }
    ffmpeg::Check(av_frame_make_writable(scaled.get()), "cannot make a picture to encode");
    const qorp::ConstYv12Picture frame{start, canvas.width, canvas.height};
    ffmpeg::Check(sws_scale(scaler.get(), frame.YuvData().data(), frame.YuvStrides().data(), 0,
                            canvas.height, scaled->data, scaled->linesize),
                  "cannot scale a picture");
    return true;
  }

  const config::Canvas& canvas;
  const Time frameDuration;
  VideoEncoder encoder;
  FragmentWriter writer;
  ffmpeg::Frame scaled;
  ffmpeg::Scaler scaler;
  std::optional<Time> encoded;  // start of the latest frame
  std::optional<Time> forced;   // of the latest keyframe that was made for a viewer
};

Preview::Preview(Settings settings)
    : settings_(std::move(settings)),
      frameRate_(settings_.options.frameRate.value_or(settings_.canvas.frameRate)),
      feed_(FragmentFeed::Create([this] { Join(); })),
      thread_(
          std::make_unique<os::Thread>([this] { Run(); }, "preview", os::Thread::Priority::kLow)) {}

Preview::~Preview() {
  {
    const os::MutexLock guard(lock_);
    ends_ = true;
  }
  changed_.NotifyAll();
  thread_->Wait(os::kInfinite);
}

Preview::Status Preview::status() const {
  return {feed_->viewers(), isEncoding_, frames_};
}

void Preview::Join() {
  wantsKeyframe_ = true;
  { const os::MutexLock guard(lock_); }  // the thread waits by now, or sees the viewer
  changed_.NotifyAll();
}

void Preview::Take(const ComPtr<IMediaSample>& frame, Time start) {
  const Ratio rate = settings_.canvas.frameRate;
  if (!first_) {
    first_ = start;
  }
  const std::int64_t place = FrameAt(start, frameRate_);
  if (feed_->viewers() == 0 || place == taken_) {
    return;
  }
  taken_ = place;
  QueuedFrame queued{frame, start,
                     static_cast<std::uint64_t>(FrameAt(start, rate) - FrameAt(*first_, rate))};
  {
    const os::MutexLock guard(lock_);
    std::swap(waiting_, queued);
  }
  changed_.NotifyAll();
}

std::optional<Preview::QueuedFrame> Preview::Next() {
  QueuedFrame queued;
  const os::MutexLock guard(lock_);
  while (!waiting_.sample && !ends_ && feed_->viewers() > 0) {
    changed_.WaitUntil(lock_, Clock::now() + kLookPeriod);
  }
  std::swap(queued, waiting_);
  return ends_ || feed_->viewers() == 0 ? std::nullopt : std::optional(std::move(queued));
}

void Preview::Say(const std::string& what) const {
  if (settings_.say) {
    settings_.say(what);
  }
}

void Preview::Run() {
  const auto hasEnded = [this] {
    const os::MutexLock guard(lock_);
    return ends_;
  };
  while (!hasEnded()) {
    std::optional<QueuedFrame> queued = Next();
    if (queued) {
      try {
        Encode(*queued);
        continue;
      } catch (const std::exception& error) {
        queued->sample = nullptr;
        Say(std::string("the preview has failed and begins again: ") + error.what());
      }
    }
    encoding_.reset();
    isEncoding_ = false;
    feed_->Forget();
    if (queued) {
      const os::MutexLock guard(lock_);
      const Clock::time_point until = Clock::now() + kRetry;
      while (!ends_ && changed_.WaitUntil(lock_, until)) {
      }
    }
    WaitForViewer();
  }
}

void Preview::WaitForViewer() {
  for (;;) {
    QueuedFrame unseen;  // of a viewer that has just left; released without the lock
    const os::MutexLock guard(lock_);
    if (ends_ || feed_->viewers() > 0) {
      return;
    }
    std::swap(unseen, waiting_);
    if (!unseen.sample) {
      changed_.Wait(lock_);
    }
  }
}

void Preview::Encode(QueuedFrame& queued) {
  if (!encoding_) {
    const auto [width, height] = PreviewSize(settings_.canvas, settings_.options);
    encoding_ = std::make_unique<Encoding>(
        settings_.canvas, PreviewEncoder(width, height, frameRate_, settings_.options.bitRate));
    isEncoding_ = true;
    const std::string& description = encoding_->writer.description();
    const std::optional<std::string> codec = CodecText(*encoding_->encoder.parameters());
    feed_->Publish(
        {.isKey = false,
         .frame = 0,
         .bytes = description,
         .format = FragmentFormat{codec.value_or("avc1"), width, height, frameRate_, 0, 0}});
  }
  const bool isScaled = encoding_->Scale(queued.sample);
  queued.sample = nullptr;  // the buffers of the canvas are few
  if (!isScaled) {
    return;
  }
  const Time start = queued.start;
  // Players drop what follows a gap of more than two frames up to the next keyframe.
  const bool isAfterGap =
      encoding_->encoded && start - *encoding_->encoded > 5 * encoding_->frameDuration / 2;
  const bool isWanted = wantsKeyframe_.exchange(false);
  const bool isForViewer =
      isWanted && (!encoding_->forced || start - *encoding_->forced >= kKeyframeInterval);
  if (isForViewer) {
    encoding_->forced = start;
  }
  if (isForViewer || isAfterGap) {
    encoding_->encoder.ForceKeyframe();
  }
  encoding_->encoded = start;
  encoding_->encoder.Encode(*encoding_->scaled, start, [&](ffmpeg::Packet packet) {
    const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (isWanted && !isKey) {
      wantsKeyframe_ = true;
    }
    feed_->Publish({.isKey = isKey,
                    .frame = queued.number,
                    .bytes = encoding_->writer.Write(std::move(packet))});
    ++frames_;
  });
}

}  // namespace host
