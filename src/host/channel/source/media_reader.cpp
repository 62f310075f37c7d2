#include "host/channel/source/media_reader.h"

#include <chrono>
#include <utility>

namespace host {
namespace {

constexpr std::chrono::milliseconds kKeyframeTimeout = Milliseconds(KeyframeGate::kMaxWait);

}  // namespace

MediaReader::MediaReader(Settings settings)
    : settings_(std::move(settings)),
      input_(settings_),
      decoder_(settings_, input_),
      tracks_(settings_, input_, decoder_) {}

void MediaReader::Open() {
  input_.Open();
  tracks_.Choose();
  if (decoder_.has(TrackKind::kVideo) && input_.kind() != SourceKind::kFile) {
    watch_.emplace(Milliseconds(settings_.options.readLimit),
                   std::chrono::microseconds(decoder_.frameDuration(TrackKind::kVideo) / 10));
  }
}

MediaItem MediaReader::Read() {
  using Clock = VideoWatch::Clock;
  if (watch_) {
    watch_->BeginReading(Clock::now());
  }
  while (decoder_.empty()) {
    if (ended_) {
      return EndOfMedia{};
    }
    ReadPacket();
    if (!watch_) {
      continue;
    }
    if (decoder_.TakeFrameGiven()) {
      watch_->Picture(Clock::now());
    }
    if (watch_->Expired(Clock::now(), decoder_.waitsForKeyframes() ? kKeyframeTimeout
                                                                   : Clock::duration::zero())) {
      input_.Fail(MediaError::Kind::kTimedOut, "it sends, but no picture that can be decoded");
    }
  }
  if (watch_) {
    watch_->EndReading(Clock::now());
  }
  return decoder_.Take();
}

void MediaReader::ReadPacket() {
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  const auto begun = std::chrono::steady_clock::now();
  const MediaInput::Outcome outcome = input_.Read(packet, !decoder_.hasGiven() && repeats_ == 0);
  waited_ += std::chrono::steady_clock::now() - begun;
  switch (outcome) {
    case MediaInput::Outcome::kPacket:
      tracks_.Handle(std::move(packet));
      break;
    case MediaInput::Outcome::kNothing:
      break;
    case MediaInput::Outcome::kReplaced:
      tracks_.OnReplacedDemuxer();
      break;
    case MediaInput::Outcome::kEnd:
      FinishRepetition();
      break;
  }
}

// The end of the source: what the decoders still hold comes out, then it ends or begins again.
void MediaReader::FinishRepetition() {
  decoder_.Drain();
  if (!input_.repeats() || (!decoder_.hasGiven() && input_.kind() != SourceKind::kFile)) {
    ended_ = true;
    return;
  }
  input_.CheckUnchanged();
  // A source that gave nothing would begin again without end.
  if (!decoder_.hasGiven()) {
    input_.Fail(MediaError::Kind::kFailed, "nothing in it can be read");
  }
  input_.Rewind();
  decoder_.Restart();
  ++repeats_;
}

}  // namespace host
