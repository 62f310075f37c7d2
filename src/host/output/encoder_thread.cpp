#include "host/output/encoder_thread.h"

#include <algorithm>
#include <cstring>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/ffmpeg/error.h"

namespace host {

namespace {

// How long the destructor waits for the thread.
constexpr int kFinishLimit = 500;  // milliseconds

}  // namespace

using Clock = std::chrono::steady_clock;

struct EncoderThread::QueuedFrame {
  ComPtr<IMediaSample> sample;
  Time start = 0;
};

struct EncoderThread::Work {
  explicit Work(const Settings& given)
      : settings(given),
        encoder(settings.encoder),
        parameters(encoder->parameters()),
        delay(settings.reopen),
        openedAt(Clock::now()),
        queue(settings.queuedFrames) {}

  void Run();
  void Hand(const ffmpeg::Packet& packet);
  void Encode(const QueuedFrame& frame);
  // Throws ffmpeg::Error.
  void Open();
  void OnFailure(const std::string& reason);

  const Settings settings;
  // From here to failed: the thread's own once it runs.
  std::optional<VideoEncoder> encoder;  // none after a failure
  const ffmpeg::Parameters parameters;
  std::optional<Time> gridStart;  // of the keyframes
  qorp::ReopenDelay delay;
  Clock::time_point openedAt;
  Clock::time_point openAgainAt;
  std::int64_t inside = 0;  // frames that the encoder holds
  bool failed = false;      // no packet came since
  std::vector<Consumer> consumers;
  BoundedQueue<QueuedFrame> queue;
  std::atomic<std::uint64_t> dropped{0};
  std::atomic<std::uint64_t> handed{0};
  std::atomic<bool> ended{false};
};

EncoderThread::EncoderThread(const Settings& settings, qorp::log::ILogPerf* logger)
    : work_(std::make_shared<Work>(settings)), logger_(logger) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(settings.name.c_str());
  }
}

EncoderThread::~EncoderThread() {
  Finish(std::chrono::milliseconds(kFinishLimit));
}

void EncoderThread::Add(Consumer consumer) {
  work_->consumers.push_back(std::move(consumer));
}

void EncoderThread::Start() {
  thread_ = std::make_unique<os::Thread>([work = work_] { work->Run(); }, "encoder");
}

void EncoderThread::Take(const ComPtr<IMediaSample>& frame, Time start) {
  if (work_->queue.PushDroppingOldest({frame, start}).has_value() && !work_->ended) {
    ++work_->dropped;
    if (logger_ != nullptr) {
      logger_->NotifyBufferFull(work_->settings.name.c_str());
    }
  }
}

bool EncoderThread::WaitForRoom(std::chrono::milliseconds limit) {
  return work_->ended || work_->queue.WaitForRoom(limit) || work_->ended;
}

std::uint64_t EncoderThread::dropped() const {
  return work_->dropped;
}

std::size_t EncoderThread::queued() const {
  return work_->queue.size();
}

std::uint64_t EncoderThread::handed() const {
  return work_->handed;
}

ffmpeg::Parameters EncoderThread::parameters() const {
  ffmpeg::Parameters parameters = ffmpeg::MakeParameters();
  ffmpeg::Check(avcodec_parameters_copy(parameters.get(), work_->parameters.get()),
                "cannot describe the encoded video");
  return parameters;
}

void EncoderThread::Close() {
  work_->queue.Close();
}

bool EncoderThread::WaitForEnd(std::chrono::milliseconds limit) {
  return thread_ == nullptr || thread_->Wait(static_cast<std::uint32_t>(limit.count()));
}

bool EncoderThread::Finish(std::chrono::milliseconds limit) {
  Close();
  const bool ended = WaitForEnd(limit);
  if (!ended) {
    // Frames that still wait are in buffers of the composer, which may be destroyed next.
    while (work_->queue.PopFor(std::chrono::milliseconds(0)).has_value()) {
    }
  }
  thread_.reset();
  return ended;
}

void EncoderThread::Work::Open() {
  openedAt = Clock::now();
  encoder.emplace(settings.encoder);
  const ffmpeg::Parameters now = encoder->parameters();
  // Outputs have written the headers of the first one.
  if (now->extradata_size != parameters->extradata_size ||
      (now->extradata_size > 0 &&
       std::memcmp(now->extradata, parameters->extradata,
                   static_cast<std::size_t>(now->extradata_size)) != 0)) {
    throw ffmpeg::Error(AVERROR_INPUT_CHANGED, "the encoder has other headers than before");
  }
}

void EncoderThread::Work::Encode(const QueuedFrame& frame) {
  ++inside;
  if (!encoder) {
    Open();
  }
  gridStart = gridStart.value_or(frame.start);
  encoder->BeginGrid(*gridStart);
  BYTE* pixels = nullptr;
  frame.sample->GetPointer(&pixels);
  encoder->Encode({pixels, static_cast<std::size_t>(frame.sample->GetActualDataLength())},
                  frame.start, [this](const ffmpeg::Packet& packet) { Hand(packet); });
}

void EncoderThread::Work::Hand(const ffmpeg::Packet& packet) {
  --inside;
  ++handed;
  const bool recovers = std::exchange(failed, false);
  for (const Consumer& consumer : consumers) {
    if (recovers) {
      consumer.recover();
    }
    consumer.take(*packet);
  }
}

void EncoderThread::Work::OnFailure(const std::string& reason) {
  encoder.reset();
  failed = true;
  dropped += static_cast<std::uint64_t>(std::exchange(inside, 0));
  delay.ResetIfLasting(Clock::now() - openedAt);
  const std::chrono::milliseconds wait = delay.AfterFailure();
  openAgainAt = Clock::now() + wait;
  for (const Consumer& consumer : consumers) {
    consumer.fail(reason, settings.live ? std::optional(wait) : std::nullopt);
  }
}

void EncoderThread::Work::Run() {
  while (std::optional<QueuedFrame> frame = queue.Pop()) {
    if (!encoder && Clock::now() < openAgainAt) {
      ++dropped;
      continue;
    }
    try {
      Encode(*frame);
    } catch (const std::exception& error) {
      OnFailure(error.what());
      if (!settings.live) {
        break;
      }
    }
  }
  if (encoder) {
    try {
      encoder->Finish([this](const ffmpeg::Packet& packet) { Hand(packet); });
    } catch (const std::exception& error) {
      OnFailure(error.what());
    }
  }
  // Frames that come from now on are not kept.
  ended = true;
  queue.Close();
  while (queue.Pop().has_value()) {
  }
}

}  // namespace host
