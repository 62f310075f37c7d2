#include "host/output/picture_encoder.h"

namespace host {

PictureEncoder::PictureEncoder(const Settings& settings, qorp::log::ILogPerf* logger)
    : name_(settings.name),
      logger_(logger),
      encoder_(settings.encoder),
      queue_(settings.queuedPictures) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(name_.c_str());
  }
}

PictureEncoder::~PictureEncoder() {
  Finish();
}

void PictureEncoder::Start() {
  thread_ = std::make_unique<os::Thread>([this] { Encode(); }, "encoder");
}

void PictureEncoder::Take(const ComPtr<IMediaSample>& picture, Time start) {
  if (queue_.PushDroppingOldest({picture, start}).has_value() && !ended_) {
    ++dropped_;
    if (logger_ != nullptr) {
      logger_->NotifyBufferFull(name_.c_str());
    }
  }
}

bool PictureEncoder::WaitForRoom(std::chrono::milliseconds limit) {
  return ended_ || queue_.WaitForRoom(limit) || ended_;
}

void PictureEncoder::Encode() {
  const VideoEncoder::PacketSink sink = [this](const ffmpeg::Packet& packet) {
    for (const Consumer& consumer : consumers_) {
      consumer.take(*packet);
    }
  };
  try {
    while (std::optional<Picture> picture = queue_.Pop()) {
      BYTE* pixels = nullptr;
      picture->sample->GetPointer(&pixels);
      encoder_.Encode({pixels, static_cast<std::size_t>(picture->sample->GetActualDataLength())},
                      picture->start, sink);
    }
    encoder_.Finish(sink);
    ended_ = true;
  } catch (const std::exception& error) {
    // What comes from now on is not kept.
    ended_ = true;
    queue_.Close();
    while (queue_.Pop().has_value()) {
    }
    for (const Consumer& consumer : consumers_) {
      consumer.fail(error.what());
    }
  }
}

void PictureEncoder::Finish() {
  queue_.Close();
  if (thread_) {
    thread_->Wait(os::kInfinite);
  }
}

}  // namespace host
