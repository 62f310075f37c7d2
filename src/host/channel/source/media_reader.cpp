#include "host/channel/source/media_reader.h"

#include <chrono>
#include <utility>

#include "host/channel/source/media_input.h"
#include "host/channel/source/shared_input.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kKeyframeTimeout = Milliseconds(KeyframeGate::kMaxWait);

}  // namespace

MediaReader::MediaReader(Settings settings) : settings_(std::move(settings)) {}

void MediaReader::Cancel() {
  opening_.Cancel();
  const os::MutexLock guard(lock_);
  if (input_) {
    input_->Cancel();
  }
}

void MediaReader::Open() {
  std::unique_ptr<PacketSource> input;
  if (settings_.inputs && settings_.live && SharedInputs::Serves(settings_)) {
    input = settings_.inputs->Open(settings_, opening_);
  }
  MediaInput* own = nullptr;
  if (input == nullptr) {
    auto made = std::make_unique<MediaInput>(settings_);
    own = made.get();
    input = std::move(made);
  }
  {
    const os::MutexLock guard(lock_);
    input_ = std::move(input);
    if (opening_.cancelled()) {
      input_->Cancel();
    }
  }
  if (own != nullptr) {
    own->Open();
  }
  decoder_.emplace(settings_, *input_);
  tracks_.emplace(settings_, *input_, *decoder_).Choose();
  if (decoder_->has(TrackKind::kVideo) && input_->kind() != SourceKind::kFile) {
    watch_.emplace(Milliseconds(settings_.options.readLimit),
                   std::chrono::microseconds(decoder_->frameDuration(TrackKind::kVideo) / 10));
  }
}

MediaItem MediaReader::Read() {
  using Clock = VideoWatch::Clock;
  if (watch_) {
    watch_->BeginReading(Clock::now());
  }
  while (decoder_->empty()) {
    if (ended_) {
      return EndOfMedia{};
    }
    if (!ReadPacket() || !watch_) {
      continue;
    }
    if (decoder_->TakeFrameGiven()) {
      watch_->OnFrame(Clock::now());
    }
    if (watch_->Expired(Clock::now(), decoder_->waitsForKeyframes() ? kKeyframeTimeout
                                                                    : Clock::duration::zero())) {
      input_->Fail(MediaError::Kind::kTimedOut, "it sends, but no picture that can be decoded");
    }
  }
  if (watch_) {
    watch_->EndReading(Clock::now());
  }
  return decoder_->Take();
}

bool MediaReader::ReadPacket() {
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  const auto begun = std::chrono::steady_clock::now();
  const PacketSource::Outcome outcome =
      input_->Read(packet, !decoder_->hasGiven() && repeats_ == 0);
  waited_ += std::chrono::steady_clock::now() - begun;
  switch (outcome) {
    case PacketSource::Outcome::kPacket:
      tracks_->Handle(std::move(packet));
      break;
    case PacketSource::Outcome::kNothing:
      return false;
    case PacketSource::Outcome::kReplaced:
      tracks_->OnReplacedDemuxer();
      break;
    case PacketSource::Outcome::kEnd:
      FinishRepetition();
      break;
  }
  return true;
}

// At the end of the source: drains the decoders, then ends or begins again.
void MediaReader::FinishRepetition() {
  decoder_->Drain();
  if (!input_->repeats() || (!decoder_->hasGiven() && input_->kind() != SourceKind::kFile)) {
    ended_ = true;
    return;
  }
  input_->Rewind();
  // A source that gives nothing would begin again endlessly.
  if (!decoder_->hasGiven()) {
    input_->Fail(MediaError::Kind::kFailed, "nothing in it can be read");
  }
  decoder_->Restart();
  ++repeats_;
}

}  // namespace host
