// The reader's side of a shared input; the thread's side is in shared_input.cpp.
#include <chrono>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include "host/channel/source/shared_input.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace host {
namespace {

// Time for the thread to report by itself that nothing arrives, and to wait for a slow reader.
constexpr std::chrono::milliseconds kSilenceMargin{2000};

// A mirror's streams have the same places in every other mirror of the source.
std::vector<int> PlacesOfMirror(const AVFormatContext& mirror) {
  std::vector<int> places(mirror.nb_streams);
  std::iota(places.begin(), places.end(), 0);
  return places;
}

}  // namespace

SharedInput::Subscription::~Subscription() {
  input_->Leave(*this);
}

void SharedInput::Subscription::Fail(MediaError::Kind kind, const std::string& reason) const {
  const MediaError failure(kind, reason, input_->maskedSource_);
  input_->NoteFailure(*this, failure);
  throw MediaError(failure);
}

SharedInput::Phase SharedInput::Subscription::WaitUntilOpen(ffmpeg::IoDeadline& deadline) {
  const os::MutexLock guard(input_->lock_);
  while (input_->phase_ == Phase::kOpening && !deadline.ShouldStop()) {
    input_->changed_.WaitUntil(input_->lock_, SteadyClock::now() + kNoticePeriod);
  }
  if (input_->phase_ == Phase::kEnded && input_->failure_) {
    throw MediaError(*input_->failure_);
  }
  return input_->phase_;
}

void SharedInput::Subscription::Begin() {
  const os::MutexLock guard(input_->lock_);
  mirrored_ = input_->streams_;
  mirror_ = MakeMirror(*mirrored_);
  kind_ = input_->kind_;
  openedStreams_ = input_->openedStreams_;
  unknownOptions_ = input_->unknownOptions_;
  if (input_->hasBegun_) {
    mirror_->start_time = AV_NOPTS_VALUE;  // this reader joins in the middle
    before_ = input_->counts_;
  }
}

PacketSource::Outcome SharedInput::Subscription::Read(ffmpeg::Packet& packet, bool /*isUnused*/) {
  if (cancelled_) {
    throw MediaError(MediaError::Kind::kCancelled, "stopped", input_->maskedSource_);
  }
  // The thread does not notice: other readers may get packets of their streams.
  if (waited_ > Milliseconds(input_->settings_.options.readLimit) + kSilenceMargin) {
    Fail(MediaError::Kind::kTimedOut, LateData(input_->settings_));
  }
  NoteChoice();
  std::shared_ptr<const Piece> piece;
  if (const Outcome outcome = Take(piece); outcome != Outcome::kPacket) {
    return outcome;
  }
  if (piece->streams != mirrored_) {
    UpdateMirror(*mirror_, *piece->streams, PlacesOfMirror(*piece->streams));
    mirrored_ = piece->streams;
  }
  packet = ffmpeg::RefPacket(*piece->packet);
  return Outcome::kPacket;
}

PacketSource::Outcome SharedInput::Subscription::Take(std::shared_ptr<const Piece>& piece) {
  const os::MutexLock guard(input_->lock_);
  readAt_ = SteadyClock::now();
  if (queue_.empty() && input_->phase_ != Phase::kEnded) {
    came_.WaitUntil(input_->lock_, readAt_ + kNoticePeriod);
  }
  if (queue_.empty()) {
    waited_ += SteadyClock::now() - readAt_;
    if (input_->phase_ == Phase::kEnded && input_->failure_) {
      throw MediaError(*input_->failure_);
    }
    return input_->phase_ == Phase::kEnded ? Outcome::kEnd : Outcome::kNothing;
  }
  waited_ = {};
  piece = std::move(queue_.front());
  queue_.pop_front();
  queued_ -= static_cast<std::size_t>(piece->packet->size);
  input_->read_.NotifyAll();
  return Outcome::kPacket;
}

// The streams that the reader does not discard. Only this thread changes the choice, so it reads it
// without the lock.
void SharedInput::Subscription::NoteChoice() {
  Choice choice;
  for (unsigned i = 0; i < mirror_->nb_streams; ++i) {
    choice.streams.push_back(mirror_->streams[i]->discard < AVDISCARD_ALL);
  }
  for (const std::optional<int>& track : selection()) {
    if (track) {
      choice.tracks.push_back(*track);
    }
  }
  choice.video = selection()[static_cast<std::size_t>(TrackKind::kVideo)];
  if (choice_ == choice) {
    return;
  }
  const os::MutexLock guard(input_->lock_);
  choice_ = std::move(choice);
  input_->choicesChanged_ = true;
  input_->read_.NotifyAll();
}

SourceCounts SharedInput::Subscription::counts() const {
  const os::MutexLock guard(input_->lock_);
  const SourceCounts now = input_->counts_;
  return {now.bytes - before_.bytes, now.packetsLost - before_.packetsLost,
          now.packetsDamaged - before_.packetsDamaged};
}

std::uint64_t SharedInput::Subscription::overflows() const {
  const os::MutexLock guard(input_->lock_);
  return overflows_;
}

bool SharedInput::Subscription::IsStart(const Piece& piece) const {
  return !choice_->video || (piece.packet->stream_index == *choice_->video &&
                             (piece.packet->flags & AV_PKT_FLAG_KEY) != 0);
}

void SharedInput::Subscription::OnProbed(int index, const AVCodecParameters& form) {
  const os::MutexLock guard(input_->lock_);
  StreamMirror streams = MakeMirror(*input_->streams_);
  SetForm(*streams, index, form);
  input_->streams_ = std::move(streams);
  isProbed_ = true;
}

}  // namespace host
