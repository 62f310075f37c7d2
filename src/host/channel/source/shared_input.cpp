#include "host/channel/source/shared_input.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/mask.h"
#include "platform/os/thread.h"

namespace host {
namespace {

// Time for the thread to report by itself why the source did not open in time.
constexpr std::chrono::milliseconds kOpeningMargin{3000};
// A reader of a stream without keyframes continues after this many dropped packets.
constexpr std::size_t kMaxLeftOut = 1500;

MediaSettings SharedSettings(const MediaSettings& settings) {
  MediaSettings shared = settings;
  shared.program = {};  // each reader has its own
  shared.receivers.reset();
  shared.inputs.reset();
  return shared;
}

std::vector<int> SamePlaces(const AVFormatContext& context) {
  std::vector<int> places(context.nb_streams);
  std::iota(places.begin(), places.end(), 0);
  return places;
}

}  // namespace

SharedInput::SharedInput(MediaSettings settings, const Limits& limits)
    : settings_(std::move(settings)),
      maskedSource_(ffmpeg::MaskUrl(settings_.source)),
      limits_(limits),
      input_(std::make_unique<MediaInput>(settings_)) {}

std::unique_ptr<SharedInput::Subscription> SharedInput::Subscribe() {
  std::unique_ptr<Subscription> reader(new Subscription(shared_from_this()));
  const os::MutexLock guard(lock_);
  if (isEnding() || phase_ == Phase::kHandedOver || phase_ == Phase::kEnded) {
    return nullptr;
  }
  reader->failuresBefore_ = failures_;
  readers_.push_back(reader.get());
  return reader;
}

void SharedInput::NoteFailure(const Subscription& reader, const MediaError& failure) {
  const os::MutexLock guard(lock_);
  if (reader.isProbed_) {
    return;  // the next reader knows the stream
  }
  const bool isShown = std::any_of(readers_.begin(), readers_.end(), [&](const auto* other) {
    lock_.AssertHeld();
    return other != &reader && other->failuresBefore_ < failures_;
  });
  if (failures_++ > 0 && !isShown) {
    outdated_ = failure;
    if (input_) {
      input_->Cancel();
    }
    read_.NotifyAll();
  }
}

void SharedInput::Leave(Subscription& reader) {
  const auto latest = SteadyClock::now() + Milliseconds(settings_.options.openLimit);
  const os::MutexLock guard(lock_);
  if (std::erase(readers_, &reader) == 0) {
    return;
  }
  choicesChanged_ = true;
  read_.NotifyAll();
  if (!readers_.empty()) {
    return;
  }
  isLeft_ = true;
  if (input_) {
    input_->Cancel();
  }
  while ((phase_ == Phase::kOpening || phase_ == Phase::kOpen) &&
         changed_.WaitUntil(lock_, latest)) {
  }
}

bool SharedInput::WaitUntilEnded(ffmpeg::IoDeadline& deadline) {
  const os::MutexLock guard(lock_);
  while (phase_ == Phase::kOpening || phase_ == Phase::kOpen) {
    if (deadline.ShouldStop()) {
      return false;
    }
    changed_.WaitUntil(lock_, SteadyClock::now() + kNoticePeriod);
  }
  return true;
}

std::unique_ptr<MediaInput> SharedInput::TakeRecorded() {
  const os::MutexLock guard(lock_);
  return std::move(input_);
}

void SharedInput::Run() {
  std::optional<MediaError> failure;
  try {
    Serve(*input_);
  } catch (const MediaError& error) {
    failure = error;
  } catch (const std::exception& error) {
    failure.emplace(MediaError::Kind::kFailed, error.what(), maskedSource_);
  }
  End(failure);
}

// Closes the source before its readers see the end, because they may open it again at once.
void SharedInput::End(const std::optional<MediaError>& failure) {
  std::unique_ptr<MediaInput> closing;
  {
    const os::MutexLock guard(lock_);
    if (phase_ == Phase::kHandedOver) {
      return;
    }
    std::swap(closing, input_);
  }
  closing.reset();
  const os::MutexLock guard(lock_);
  phase_ = Phase::kEnded;
  failure_ = outdated_ ? outdated_ : failure;
  changed_.NotifyAll();
  for (Subscription* const reader : readers_) {
    reader->came_.NotifyAll();
  }
}

// Until the source ends or the last reader has left. Throws MediaError.
void SharedInput::Serve(MediaInput& input) {
  input.Open();
  {
    const os::MutexLock guard(lock_);
    if (input.isRecorded()) {
      phase_ = Phase::kHandedOver;
      changed_.NotifyAll();
      return;
    }
    StreamMirror streams = MakeMirror(input.context());
    PreferBest(*streams, input.context());
    streams_ = std::move(streams);
    places_ = SamePlaces(input.context());
    kind_ = input.kind();
    openedStreams_ = input.openedStreams();
    unknownOptions_ = input.unknownOptions();
    counts_ = input.counts();
    phase_ = Phase::kOpen;
    changed_.NotifyAll();
  }
  bool isUnused = true;
  for (bool isRead = WaitUntilChosen(); isRead;
       isRead = input.kind() == SourceKind::kPush || WaitForReaders()) {
    ApplyChoices(input);
    ffmpeg::Packet packet = ffmpeg::MakePacket();
    switch (input.Read(packet, isUnused)) {
      case PacketSource::Outcome::kPacket:
        isUnused = false;
        Distribute(input, std::move(packet));
        break;
      case PacketSource::Outcome::kNothing:
        break;
      case PacketSource::Outcome::kReplaced: {
        const os::MutexLock guard(lock_);
        places_ = PlacesIn(*streams_, input.context());
        choicesChanged_ = true;
        break;
      }
      case PacketSource::Outcome::kEnd:
        return;
    }
  }
}

// False when reading has to end.
bool SharedInput::WaitUntilChosen() {
  const os::MutexLock guard(lock_);
  while (!isEnding() && std::none_of(readers_.begin(), readers_.end(),
                                     [](const auto* each) { return each->choice_.has_value(); })) {
    read_.Wait(lock_);
  }
  return !isEnding();
}

// Discards streams that no reader reads, except those that no reader knows yet.
void SharedInput::ApplyChoices(MediaInput& input) {
  std::vector<bool> isRead(places_.size());
  std::vector<int> followed;
  {
    const os::MutexLock guard(lock_);
    bool hasChoice = false;
    if (!std::exchange(choicesChanged_, false)) {
      return;
    }
    for (const Subscription* const reader : readers_) {
      if (!reader->choice_) {
        continue;
      }
      hasChoice = true;
      for (std::size_t i = 0; i < places_.size(); ++i) {
        const auto& tracks = reader->choice_->tracks;
        isRead[i] = isRead[i] || reader->choice_->Has(static_cast<std::size_t>(places_[i]));
        if (std::find(tracks.begin(), tracks.end(), places_[i]) != tracks.end()) {
          followed.push_back(static_cast<int>(i));
        }
      }
    }
    if (!hasChoice) {
      return;
    }
  }
  for (std::size_t i = 0; i < places_.size(); ++i) {
    input.context().streams[i]->discard = isRead[i] ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  input.Follow(followed);
}

// False when reading has to end.
bool SharedInput::WaitForReaders() {
  const os::MutexLock guard(lock_);
  while (!isEnding()) {
    const auto now = SteadyClock::now();
    bool isAnyAwaited = false;
    bool isAnyFree = false;
    for (const Subscription* const reader : readers_) {
      const bool isFull =
          reader->queue_.size() >= limits_.packetsAhead || reader->queued_ >= limits_.bytes / 2;
      isAnyAwaited = isAnyAwaited || (isFull && now - reader->readAt_ < kMaxPause);
      isAnyFree = isAnyFree || (!isFull && reader->choice_);
    }
    if (!isAnyAwaited && isAnyFree) {
      return true;
    }
    read_.WaitUntil(lock_, now + kNoticePeriod);
  }
  return false;
}

void SharedInput::Distribute(const MediaInput& input, ffmpeg::Packet packet) {
  const AVFormatContext& context = input.context();
  const os::MutexLock guard(lock_);
  hasBegun_ = true;
  counts_ = input.counts();
  if (places_.size() < context.nb_streams) {
    int behind = static_cast<int>(streams_->nb_streams);
    for (const int place : places_) {
      behind = std::max(behind, place + 1);
    }
    const std::size_t known = places_.size();
    places_.resize(context.nb_streams);
    std::iota(places_.begin() + static_cast<std::ptrdiff_t>(known), places_.end(), behind);
  }
  if (DiffersFrom(*streams_, context, places_)) {
    StreamMirror streams = MakeMirror(*streams_);
    UpdateMirror(*streams, context, places_);
    streams_ = std::move(streams);
  }
  packet->stream_index = places_[static_cast<std::size_t>(packet->stream_index)];
  const auto place = static_cast<std::size_t>(packet->stream_index);
  const auto piece = std::make_shared<const Piece>(Piece{std::move(packet), streams_});
  for (Subscription* const reader : readers_) {
    if (reader->choice_ && reader->choice_->Has(place)) {
      Push(*reader, piece);
    }
  }
}

void SharedInput::Push(Subscription& reader, const std::shared_ptr<const Piece>& piece) {
  if (reader.awaitsKeyframe_ && !reader.IsStart(*piece) && ++reader.leftOut_ < kMaxLeftOut) {
    return;
  }
  reader.awaitsKeyframe_ = false;
  reader.queue_.push_back(piece);
  reader.queued_ += static_cast<std::size_t>(piece->packet->size);
  reader.came_.NotifyAll();
  if (reader.queue_.size() <= limits_.packets && reader.queued_ <= limits_.bytes) {
    return;
  }
  ++reader.overflows_;
  while (!reader.queue_.empty() &&
         (reader.queue_.size() > limits_.packets / 2 || reader.queued_ > limits_.bytes / 2 ||
          !reader.IsStart(*reader.queue_.front()))) {
    reader.queued_ -= static_cast<std::size_t>(reader.queue_.front()->packet->size);
    reader.queue_.pop_front();
  }
  reader.awaitsKeyframe_ = reader.queue_.empty();
  reader.leftOut_ = 0;
}

bool SharedInputs::Serves(const MediaSettings& settings) {
  const SourceAddress address(settings.source);
  return !MayShareConnection(settings) && (ffmpeg::PipeInput::Serves(settings.source) ||
                                           address.isRemote() || address.isDescription());
}

SharedInputs::Key SharedInputs::KeyOf(const MediaSettings& settings) {
  return {settings.source,
          settings.playlist,
          settings.options.options,
          settings.options.openLimit,
          settings.options.readLimit,
          settings.options.repeat,
          settings.maxIndexEntries};
}

std::unique_ptr<PacketSource> SharedInputs::Open(const MediaSettings& settings,
                                                 ffmpeg::IoDeadline& deadline) {
  const Key key = KeyOf(settings);
  deadline.Arm(Milliseconds(settings.options.openLimit) + kOpeningMargin);
  for (;;) {
    std::shared_ptr<SharedInput> input;
    std::unique_ptr<SharedInput::Subscription> reader;
    {
      const os::MutexLock guard(lock_);
      std::erase_if(inputs_, [](const auto& each) { return each.second.expired(); });
      std::weak_ptr<SharedInput>& known = inputs_[key];
      input = known.lock();
      if (input == nullptr) {
        input = std::make_shared<SharedInput>(SharedSettings(settings), limits_);
        reader = input->Subscribe();
        try {
          // Goes on when the object is destroyed.
          const os::Thread thread([input] { input->Run(); }, "input");
        } catch (...) {
          input->End(std::nullopt);
          throw;
        }
        known = input;
      } else {
        reader = input->Subscribe();
      }
    }
    bool isLate = false;
    if (reader != nullptr) {
      switch (reader->WaitUntilOpen(deadline)) {
        case SharedInput::Phase::kHandedOver:
          return input->TakeRecorded();
        case SharedInput::Phase::kOpening:
          isLate = true;
          break;
        default:
          reader->Begin();
          return reader;
      }
    }
    if (isLate || !input->WaitUntilEnded(deadline)) {
      const bool isCancelled = deadline.cancelled();
      throw MediaError(isCancelled ? MediaError::Kind::kCancelled : MediaError::Kind::kTimedOut,
                       isCancelled ? "stopped" : LateOpening(settings),
                       ffmpeg::MaskUrl(settings.source));
    }
    // An ended source takes no more readers.
    const os::MutexLock guard(lock_);
    const auto known = inputs_.find(key);
    if (known != inputs_.end() && known->second.lock() == input) {
      inputs_.erase(known);
    }
  }
}

}  // namespace host
