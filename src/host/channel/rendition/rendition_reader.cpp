#include "host/channel/rendition/rendition_reader.h"

#include <algorithm>

#include "host/ffmpeg/mask.h"
#include "platform/os/thread.h"

namespace host {
namespace {

using std::chrono::milliseconds;

// How often the right rendition is determined.
constexpr milliseconds kPeriod{200};
// A rendition that was read for this long can be read; its failures are forgotten.
constexpr std::chrono::seconds kProven{60};
// How much longer than expected the former rendition is read up to the change.
constexpr milliseconds kMaxWait{1000};
// A longer duration of an item does not tell when the next one begins.
constexpr Time kMaxStep = kSecond / 10;

Time ToTime(RenditionSet::Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count() / 100;
}

// Closing a source may take time: it is done on another thread.
void CloseBeside(std::shared_ptr<MediaReader> reader) {
  reader->Cancel();
  const os::Thread closing([reader = std::move(reader)]() mutable { reader.reset(); }, "closing",
                           os::Thread::Priority::kLow);
}

std::string SizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

RenditionReader::RenditionReader(Settings settings, std::shared_ptr<const WantedSize> wanted,
                                 RenditionSet& renditions)
    : settings_(std::move(settings)),
      wanted_(std::move(wanted)),
      renditions_(renditions),
      position_(std::make_shared<RenditionOpener::Position>()) {}

void RenditionReader::Cancel() {
  const os::MutexLock guard(lock_);
  cancelled_ = true;
  playlistDeadline_.Cancel();
  if (reader_) {
    reader_->Cancel();
  }
  if (opener_) {
    opener_->Cancel();
  }
}

bool RenditionReader::cancelled() const {
  const os::MutexLock guard(lock_);
  return cancelled_;
}

MediaSettings RenditionReader::SettingsOf(std::size_t index) const {
  MediaSettings settings;
  settings.source = renditions_[index].source;
  settings.playlist = renditions_[index].playlist;
  settings.options = settings_.channel.options;
  settings.program = settings_.channel.program;
  settings.receivers = settings_.receivers;
  settings.inputs = settings_.inputs;
  settings.live = settings_.isLive;
  settings.canvasRate = settings_.canvasRate;
  return settings;
}

void RenditionReader::Open() {
  window_ = wanted_->Get();
  renditions_.Assign(FindVariants(settings_.channel, playlistDeadline_));
  std::optional<MediaError> failure;
  std::string reason = Purpose();
  const std::vector<std::size_t> order = renditions_.Order(window_, Clock::now());
  for (const std::size_t index : order) {
    try {
      OpenFirst(index, reason);
      if (reader_->info().video || index == order.back()) {
        return;
      }
    } catch (const MediaError& error) {
      if (cancelled() || order.size() == 1) {
        throw;
      }
      renditions_.Failed(index, Clock::now());
      reason = "another one failed: " + error.reason();
      failure = failure ? failure : std::optional(error);
    }
  }
  throw MediaError(*failure);
}

void RenditionReader::OpenFirst(std::size_t index, std::string reason) {
  auto reader = std::make_shared<MediaReader>(SettingsOf(index));
  {
    const os::MutexLock guard(lock_);
    std::swap(reader_, reader);
    if (cancelled_) {
      reader_->Cancel();
    }
  }
  reader.reset();
  reader_->Open();
  if (turns_) {
    reader_->TakeTurns(turns_);
  }
  index_ = index;
  openedAt_ = Clock::now();
  if (renditions_.size() > 1) {
    const std::optional<VideoInfo>& video = reader_->info().video;
    renditions_.Learn(index, video ? video->width : 0, video ? video->height : 0);
  }
  Note(std::move(reason));
}

std::string RenditionReader::Purpose() const {
  return "for a window of " + SizeText(window_.width, window_.height);
}

void RenditionReader::Note(std::string reason) {
  if (renditions_.size() > 1) {
    const PlaylistVariant& read = renditions_[index_];
    change_ = RenditionStatus{index_ + 1,  renditions_.size(),           read.width,
                              read.height, ffmpeg::MaskUrl(read.source), std::move(reason)};
  }
}

void RenditionReader::SetStep(DecodeStep step) {
  step_ = step;
  reader_->SetStep(step);
}

MediaItem RenditionReader::TakeNext() {
  if (items_.empty()) {
    return reader_->Read();
  }
  MediaItem item = std::move(items_.front());
  items_.pop_front();
  return item;
}

MediaItem RenditionReader::Read() {
  for (;;) {
    Consider();
    try {
      MediaItem item = TakeNext();
      if (std::holds_alternative<EndOfMedia>(item)) {
        if (!next_) {
          return item;
        }
        ChangeOver();
      } else if (std::optional<MediaItem> passed = Pass(std::move(item))) {
        return std::move(*passed);
      }
    } catch (const MediaError& error) {
      if (!FallBack(error)) {
        throw;
      }
    }
  }
}

RenditionReader::Kind RenditionReader::KindOf(const MediaItem& item) {
  return std::holds_alternative<DecodedFrame>(item)  ? kFrames
         : std::holds_alternative<AudioPacket>(item) ? kPackets
                                                     : kSamples;
}

std::optional<MediaItem> RenditionReader::Pass(MediaItem item) {
  if (renditions_.size() < 2) {
    return item;
  }
  const Kind kind = KindOf(item);
  if (kind == kFrames) {
    const Time unshifted = StartOf(item);
    position_->timestamp =
        CommonTime(*reader_, Alignment::kTimestamps, TrackKind::kVideo, unshifted);
    position_->sinceBeginning =
        CommonTime(*reader_, Alignment::kBeginning, TrackKind::kVideo, unshifted);
  }
  Shift(item, kind == kFrames ? shift_ : audioShift_ + audioSnap_);
  Time start = StartOf(item);
  std::optional<Given>& given = given_[kind];
  if (follows_[kind]) {
    if (given ? !given->IsBefore(start) : start < from_) {
      return std::nullopt;
    }
    follows_[kind] = false;
    if (kind == kPackets && given && std::abs(given->end() - start) <= given->duration / 2) {
      audioSnap_ = given->end() - start;
      Shift(item, audioSnap_);
      start += audioSnap_;
    }
  }
  const Time step = std::min(DurationOf(item), kMaxStep);
  if (next_) {
    // Missing frames, as when only keyframes are decoded, are not waited for.
    const bool isBehind = start + step / 2 >= next_->from;
    next_->framesReached = next_->framesReached ||
                           (isBehind && (kind == kFrames || start >= next_->from + kSecond / 2));
    if (isBehind && kind == kFrames) {
      return std::nullopt;
    }
  }
  given = Given{start, step, Clock::now()};
  return item;
}

void RenditionReader::Consider() {
  if (next_) {
    if (IsReached(*next_)) {
      ChangeOver();
    }
    return;
  }
  if (!settings_.isLive || renditions_.size() < 2) {
    return;
  }
  const Clock::time_point now = Clock::now();
  const WindowSize window = wanted_->Get();
  const bool isNew = window != window_;
  window_ = window;
  if (opener_) {
    if (opener_->WaitUntilReady(milliseconds(0))) {
      OnOpened(false);
    } else if (isNew && renditions_.Best(window_, now) != openingIndex_) {
      const os::MutexLock guard(lock_);
      opener_.reset();
    }
    return;
  }
  // Another rendition is aligned with the frames given so far.
  if (!given_[kFrames] || (!isNew && now < considerAt_)) {
    return;
  }
  considerAt_ = now + kPeriod;
  if (now - openedAt_ >= kProven) {
    renditions_.Succeeded(index_);
  }
  const std::optional<std::size_t> best = renditions_.Best(window_, now);
  const std::optional<std::size_t> wanted =
      best && *best != index_ ? best : renditions_.Unknown(now);
  if (wanted && *wanted != index_) {
    BeginOpening(*wanted, Purpose());
  }
}

void RenditionReader::BeginOpening(std::size_t index, std::string reason) {
  openingIndex_ = index;
  openingReason_ = std::move(reason);
  auto opener = std::make_unique<RenditionOpener>(
      RenditionOpener::Settings{SettingsOf(index), reader_->info(), position_, step_});
  const os::MutexLock guard(lock_);
  opener_ = std::move(opener);
  if (cancelled_) {
    opener_->Cancel();
  }
}

void RenditionReader::OnOpened(bool isNeeded) {
  std::optional<RenditionOpener::Opened> opened = opener_->Take();
  {
    const os::MutexLock guard(lock_);
    opener_.reset();
  }
  const Clock::time_point now = Clock::now();
  if (!opened) {
    renditions_.Failed(openingIndex_, now);
    return;
  }
  const std::optional<VideoInfo>& video = opened->reader->info().video;
  renditions_.Learn(openingIndex_, video ? video->width : 0, video ? video->height : 0);
  // It may have been opened to learn its size.
  if (!video || (!isNeeded && renditions_.Best(window_, now) != openingIndex_)) {
    former_ += opened->reader->counts();
    opened->items.clear();
    CloseBeside(std::move(opened->reader));
    return;
  }
  next_ = Align(std::move(*opened));
}

RenditionReader::Next RenditionReader::Align(RenditionOpener::Opened opened) const {
  Next next;
  next.index = openingIndex_;
  next.reason = openingReason_;
  next.opened = std::move(opened);
  next.latest = Clock::now() + kMaxWait;
  const std::optional<Given>& last = given_[kFrames];
  const MediaReader& reader = *next.opened.reader;
  const Alignment alignment = next.opened.alignment;
  if (!last) {
    const std::optional<Given>& audio = given_[kPackets];
    next.shift = audio ? audio->end() - next.opened.frameStart : 0;
    next.audioShift = next.shift;
  } else if (alignment == Alignment::kArrival) {
    AlignByArrival(next, *last);
  } else {
    const auto shift = [&](TrackKind kind, Time present) {
      return present - CommonTime(*reader_, alignment, kind, 0) +
             CommonTime(reader, alignment, kind, 0);
    };
    next.shift = shift(TrackKind::kVideo, shift_);
    const Time start = next.opened.frameStart + next.shift;
    next.shift += NearestTurn(start, reader.wrapPeriod(), last->start) - start;
    next.audioShift = next.shift;
    if (reader_->info().audio && reader.info().audio) {
      next.audioShift =
          NearestTurn(shift(TrackKind::kAudio, audioShift_), reader.wrapPeriod(), next.shift);
    }
  }
  next.from = next.opened.frameStart + next.shift;
  for (const MediaItem& item : next.opened.items) {
    if (KindOf(item) == kPackets) {
      next.audioFrom = StartOf(item) + next.audioShift;
      break;
    }
  }
  if (last && next.from > last->end()) {
    next.latest += std::chrono::nanoseconds(100) * (next.from - last->end());
  }
  return next;
}

// The first frame that is not over yet follows the former rendition's latest one without a gap.
void RenditionReader::AlignByArrival(Next& next, const Given& last) const {
  const auto frame = std::find_if(next.opened.items.begin(), next.opened.items.end(),
                                  [](const MediaItem& item) { return KindOf(item) == kFrames; });
  const Time step = std::clamp<Time>(DurationOf(*frame), kMillisecond, kMaxStep);
  Time from = last.start + ToTime(next.opened.arrival - last.arrival);
  if (from < last.end()) {
    const Time behind = std::max<Time>(last.start + last.duration / 2 - from, 0);
    const Time over = (behind + step - 1) / step * step;
    from = last.end() - over;
  }
  next.shift = from - next.opened.frameStart;
  next.audioShift = next.shift;
}

bool RenditionReader::IsReached(const Next& next) const {
  const std::optional<Given>& audio = given_[kPackets];
  const bool hasAudio =
      !audio || !next.audioFrom || audio->end() + audio->duration / 2 >= *next.audioFrom;
  const std::optional<Given>& frame = given_[kFrames];
  const bool hasFrames =
      next.framesReached || !frame || frame->end() + frame->duration / 2 >= next.from;
  return (hasFrames && hasAudio) || Clock::now() >= next.latest;
}

void RenditionReader::ChangeOver() {
  Next next = std::move(*next_);
  next_.reset();
  former_ += reader_->counts();
  {
    const os::MutexLock guard(lock_);
    std::swap(reader_, next.opened.reader);
    if (cancelled_) {
      reader_->Cancel();
    }
  }
  CloseBeside(std::move(next.opened.reader));
  items_ = std::move(next.opened.items);
  index_ = next.index;
  openedAt_ = Clock::now();
  shift_ = next.shift;
  audioShift_ = next.audioShift;
  audioSnap_ = 0;
  from_ = next.from;
  follows_.fill(true);
  reader_->SetStep(step_);
  if (turns_) {
    reader_->TakeTurns(turns_);
  }
  Note(std::move(next.reason));
}

bool RenditionReader::FallBack(const MediaError& error) {
  if (renditions_.size() < 2 || cancelled()) {
    return false;
  }
  renditions_.Failed(index_, Clock::now());
  const std::string reason = "another one failed: " + error.reason();
  if (next_) {
    next_->reason = reason;
    ChangeOver();
    return true;
  }
  for (const std::size_t index : renditions_.Order(window_, Clock::now())) {
    if (index == index_ || renditions_.IsLeftOut(index, Clock::now())) {
      continue;
    }
    if (!opener_ || openingIndex_ != index) {
      BeginOpening(index, reason);
    }
    openingReason_ = reason;
    while (!opener_->WaitUntilReady(milliseconds(50))) {
    }
    if (cancelled()) {
      return false;
    }
    OnOpened(true);
    if (next_) {
      ChangeOver();
      return true;
    }
  }
  return false;
}

}  // namespace host
