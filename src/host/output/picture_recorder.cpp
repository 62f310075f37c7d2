#include "host/output/picture_recorder.h"

#include "host/ffmpeg/error.h"
#include "host/graph/graph_error.h"

namespace host {
namespace {

VideoEncoder::Settings EncoderSettings(const PictureRecorder::Settings& settings) {
  VideoEncoder::Settings encoder = settings.encoder;
  encoder.globalHeader = Muxer(settings.muxer).wantsGlobalHeader();
  return encoder;
}

}  // namespace

PictureRecorder::PictureRecorder(const Settings& settings)
    : encoder_(EncoderSettings(settings)), muxer_(settings.muxer), queue_(settings.queuedPictures) {
  track_ = muxer_.AddVideo(*encoder_.parameters(), settings.frameRate);
  muxer_.Start();
  thread_ = std::make_unique<os::Thread>([this] { Record(); }, "recorder");
}

PictureRecorder::~PictureRecorder() {
  if (!finished_) {
    queue_.Close();
    thread_->Wait(os::kInfinite);
  }
}

bool PictureRecorder::Take(const ComPtr<IMediaSample>& picture, Time start) {
  if (!queue_.PushDroppingOldest({picture, start}).has_value()) {
    return true;
  }
  ++dropped_;
  return false;
}

void PictureRecorder::Record() {
  try {
    while (std::optional<Picture> picture = queue_.Pop()) {
      BYTE* pixels = nullptr;
      picture->sample->GetPointer(&pixels);
      encoder_.Encode({pixels, static_cast<std::size_t>(picture->sample->GetActualDataLength())},
                      picture->start,
                      [&](ffmpeg::Packet packet) { WritePackets(std::move(packet)); });
      ++written_;
    }
    encoder_.Finish([&](ffmpeg::Packet packet) { WritePackets(std::move(packet)); });
    muxer_.Finish();
  } catch (const std::exception& error) {
    failure_ = error.what();
    failed_ = true;
    // What comes from now on is not kept.
    queue_.Close();
    while (queue_.Pop().has_value()) {
    }
  }
}

void PictureRecorder::WritePackets(ffmpeg::Packet packet) {
  muxer_.Write(track_, std::move(packet));
}

void PictureRecorder::Finish() {
  finished_ = true;
  queue_.Close();
  thread_->Wait(os::kInfinite);
  if (failed_) {
    throw GraphError(failure_);
  }
}

}  // namespace host
