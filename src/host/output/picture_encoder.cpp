#include "host/output/picture_encoder.h"

#include <algorithm>
#include <cstring>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/ffmpeg/error.h"

namespace host {

PictureEncoder::PictureEncoder(const Settings& settings, qorp::log::ILogPerf* logger)
    : settings_(settings),
      logger_(logger),
      encoder_(settings.encoder),
      parameters_(encoder_->parameters()),
      delay_(settings.firstDelay),
      openedAt_(Clock::now()),
      queue_(settings.queuedPictures) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(settings_.name.c_str());
  }
}

PictureEncoder::~PictureEncoder() {
  Finish();
}

void PictureEncoder::Start() {
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "encoder");
}

void PictureEncoder::Take(const ComPtr<IMediaSample>& picture, Time start) {
  if (queue_.PushDroppingOldest({picture, start}).has_value() && !ended_) {
    ++dropped_;
    if (logger_ != nullptr) {
      logger_->NotifyBufferFull(settings_.name.c_str());
    }
  }
}

bool PictureEncoder::WaitForRoom(std::chrono::milliseconds limit) {
  return ended_ || queue_.WaitForRoom(limit) || ended_;
}

ffmpeg::Parameters PictureEncoder::parameters() const {
  ffmpeg::Parameters parameters = ffmpeg::MakeParameters();
  ffmpeg::Check(avcodec_parameters_copy(parameters.get(), parameters_.get()),
                "cannot describe the encoded video");
  return parameters;
}

void PictureEncoder::Open() {
  openedAt_ = Clock::now();
  encoder_.emplace(settings_.encoder);
  const ffmpeg::Parameters now = encoder_->parameters();
  // Outputs have written the headers of the first one.
  if (now->extradata_size != parameters_->extradata_size ||
      (now->extradata_size > 0 &&
       std::memcmp(now->extradata, parameters_->extradata,
                   static_cast<std::size_t>(now->extradata_size)) != 0)) {
    throw ffmpeg::Error(AVERROR_INPUT_CHANGED, "the encoder has other headers than before");
  }
}

void PictureEncoder::Encode(const Picture& picture) {
  ++inside_;
  if (!encoder_) {
    Open();
  }
  gridStart_ = gridStart_.value_or(picture.start);
  encoder_->BeginGrid(*gridStart_);
  BYTE* pixels = nullptr;
  picture.sample->GetPointer(&pixels);
  encoder_->Encode({pixels, static_cast<std::size_t>(picture.sample->GetActualDataLength())},
                   picture.start, [this](const ffmpeg::Packet& packet) { Hand(packet); });
}

void PictureEncoder::Hand(const ffmpeg::Packet& packet) {
  --inside_;
  const bool recovers = std::exchange(failed_, false);
  for (const Consumer& consumer : consumers_) {
    if (recovers) {
      consumer.recover();
    }
    consumer.take(*packet);
  }
}

void PictureEncoder::OnFailure(const std::string& reason) {
  encoder_.reset();
  failed_ = true;
  dropped_ += static_cast<std::uint64_t>(std::exchange(inside_, 0));
  if (Clock::now() - openedAt_ >= settings_.longestDelay) {
    delay_ = settings_.firstDelay;
  }
  openAgainAt_ = Clock::now() + delay_;
  for (const Consumer& consumer : consumers_) {
    consumer.fail(reason, settings_.live ? std::optional(delay_) : std::nullopt);
  }
  delay_ = std::min(delay_ * 2, settings_.longestDelay);
}

void PictureEncoder::Run() {
  while (std::optional<Picture> picture = queue_.Pop()) {
    if (!encoder_ && Clock::now() < openAgainAt_) {
      ++dropped_;
      continue;
    }
    try {
      Encode(*picture);
    } catch (const std::exception& error) {
      OnFailure(error.what());
      if (!settings_.live) {
        break;
      }
    }
  }
  if (encoder_) {
    try {
      encoder_->Finish([this](const ffmpeg::Packet& packet) { Hand(packet); });
    } catch (const std::exception& error) {
      OnFailure(error.what());
    }
  }
  // What comes from now on is not kept.
  ended_ = true;
  queue_.Close();
  while (queue_.Pop().has_value()) {
  }
}

void PictureEncoder::Finish() {
  queue_.Close();
  if (thread_) {
    thread_->Wait(os::kInfinite);
  }
}

}  // namespace host
