#include "host/channel/channel_ingest.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace host {
namespace {

using std::chrono::milliseconds;

// An attempt of that length has itself waited for the source.
constexpr milliseconds kWaited{1000};
// Of frames, after their time: well before they are too late to be shown.
constexpr Time kLate = 3 * kSecond / 10;
// How soon it is asked again then, in seconds.
constexpr double kSoon = 0.4;

}  // namespace

ChannelIngest::ChannelIngest(std::shared_ptr<const ChannelSettings> settings,
                             std::shared_ptr<WantedSize> wanted, FeedPin& videoPin,
                             ChannelQueue& queue, ChannelObserver* observer)
    : shared_(std::move(settings)),
      settings_(*shared_),
      wanted_(std::move(wanted)),
      videoPin_(videoPin),
      queue_(queue),
      observer_(observer),
      decode_(settings_.channel.options.decode),
      renditions_(settings_.canvas.pixelAspect()),
      delay_({}, static_cast<std::uint32_t>(std::hash<std::string>()(settings_.channel.name))),
      policy_(settings_.channel.options.decode) {}

void ChannelIngest::Cancel() {
  {
    const os::MutexLock guard(lock_);
    cancelled_ = true;
    if (reader_ != nullptr) {
      reader_->Cancel();
    }
  }
  cancelling_.NotifyAll();
}

bool ChannelIngest::cancelled() const {
  const os::MutexLock guard(lock_);
  return cancelled_;
}

bool ChannelIngest::WaitBeforeReopening(milliseconds delay) {
  const auto deadline = std::chrono::steady_clock::now() + delay;
  const os::MutexLock guard(lock_);
  while (!cancelled_ && cancelling_.WaitUntil(lock_, deadline)) {
  }
  return !cancelled_;
}

bool ChannelIngest::EndBy(std::chrono::steady_clock::time_point deadline) {
  const os::MutexLock guard(lock_);
  while (!ended_ && left_.WaitUntil(lock_, deadline)) {
  }
  // Outside the source it is only slow, and uses what an abandoned run must not.
  while (!ended_ && !inSource_) {
    left_.Wait(lock_);
  }
  abandoned_ = !ended_;
  return ended_;
}

void ChannelIngest::EnterSource() {
  const os::MutexLock guard(lock_);
  inSource_ = true;
  left_.NotifyAll();
}

void ChannelIngest::LeaveSource() {
  const os::MutexLock guard(lock_);
  if (abandoned_) {
    throw Abandoned();
  }
  inSource_ = false;
}

template <typename Call>
auto ChannelIngest::InSource(const Call& call) {
  EnterSource();
  try {
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      LeaveSource();
    } else {
      auto result = call();
      LeaveSource();
      return result;
    }
  } catch (const Abandoned&) {
    throw;
  } catch (...) {
    LeaveSource();
    throw;
  }
}

void ChannelIngest::Run() {
  try {
    ReadSource();
    queue_.SetHorizon(ChannelQueue::kForever);
  } catch (const Abandoned&) {
  }
  const os::MutexLock guard(lock_);
  ended_ = true;
  left_.NotifyAll();
}

void ChannelIngest::ReadSource() {
  while (!cancelled()) {
    const std::optional<milliseconds> delay = RunOnce();
    if (!delay.has_value() || !WaitBeforeReopening(*delay)) {
      return;
    }
  }
}

std::optional<milliseconds> ChannelIngest::RunOnce() {
  const bool isThinned = settings_.isLive() && decode_ != config::Decode::kFull;
  auto reader = InSource([&] {
    return std::make_shared<RenditionReader>(
        RenditionReader::Settings{
            settings_.channel, settings_.receivers, settings_.inputs, settings_.isLive(),
            isThinned ? std::optional(settings_.canvas.frameRate) : std::nullopt},
        wanted_, renditions_);
  });
  {
    const os::MutexLock guard(lock_);
    if (cancelled_) {
      return std::nullopt;
    }
    reader_ = reader;
  }
  if (settings_.decodeSeat) {
    reader->TakeTurns([seat = settings_.decodeSeat](const std::function<void()>& decode) {
      const DecodeBudget::Turn turn = seat->TakeTurn();
      decode();
    });
  }
  const std::optional<milliseconds> delay = Attempt(*reader);
  formerCounts_ += reader->counts();
  {
    const os::MutexLock guard(lock_);
    reader_.reset();
  }
  // A camera with room for one session refuses the next while this one is open.
  InSource([&] { reader.reset(); });
  return delay;
}

std::optional<milliseconds> ChannelIngest::Attempt(RenditionReader& reader) {
  const auto after = [&](milliseconds delay) {
    return settings_.isLive() ? std::optional(delay) : std::nullopt;
  };
  const auto failed = [&](const std::string& reason, std::optional<milliseconds> delay) {
    observer_->ChannelFailed(settings_.channel.name, reason, delay);
    return Announce({SourceEvent::Kind::kFailed, false, false, reason}) ? delay : std::nullopt;
  };
  const auto begun = std::chrono::steady_clock::now();
  const auto afterError = [&] {
    const bool hasWaited = std::chrono::steady_clock::now() - begun >= kWaited;
    return after(hasWaited ? delay_.AfterWaiting() : delay_.AfterFailure());
  };
  try {
    InSource([&] { reader.Open(); });
    observer_->ChannelOpened(settings_.channel.name, reader.info());
    audioAbsence_ = reader.info().audioAbsence;
    if (const std::optional<RenditionStatus> first = reader.TakeChange()) {
      observer_->RenditionChanged(settings_.channel.name, *first);
    }
    if (!Announce({SourceEvent::Kind::kOpened, reader.info().video.has_value(),
                   reader.info().audio.has_value(), reader.info().noVideoReason,
                   reader.info().serviceName, reader.info().audioAbsence,
                   reader.info().noAudioReason}) ||
        !ReadToEnd(reader)) {
      return std::nullopt;
    }
    observer_->ChannelEnded(settings_.channel.name);
    const bool endsFinally = reader.info().kind == SourceKind::kFile;
    const auto delay = endsFinally ? std::nullopt : after(delay_.AfterFailure());
    return Announce({SourceEvent::Kind::kEnded, false, false, "ended"}) ? delay : std::nullopt;
  } catch (const MediaError& error) {
    if (cancelled()) {
      return std::nullopt;
    }
    return failed(error.reason(), afterError());
  } catch (const std::exception& error) {
    return failed(error.what(), afterError());
  }
}

bool ChannelIngest::Announce(SourceEvent event) {
  if (settings_.now) {
    latest_ = std::max(latest_, settings_.now());
  }
  return queue_.Push({latest_, latest_, 0, std::move(event)});
}

bool ChannelIngest::NoteChange(RenditionReader& reader) {
  const std::optional<RenditionStatus> change = reader.TakeChange();
  if (!change) {
    return true;
  }
  observer_->RenditionChanged(settings_.channel.name, *change);
  const MediaInfo& info = reader.info();
  if (std::exchange(audioAbsence_, info.audioAbsence) != info.audioAbsence &&
      !Announce({SourceEvent::Kind::kOpened, info.video.has_value(), info.audio.has_value(),
                 info.noVideoReason, info.serviceName, info.audioAbsence, info.noAudioReason})) {
    return false;
  }
  return BeginDecoding(reader);
}

bool ChannelIngest::AnnounceName(const RenditionReader& reader) {
  SourceEvent event;
  event.kind = SourceEvent::Kind::kRenamed;
  event.serviceName = reader.info().serviceName;
  return Announce(std::move(event));
}

bool ChannelIngest::ReadToEnd(RenditionReader& reader) {
  SourceSession session(settings_, reader, videoPin_, queue_, [this](const std::string& what) {
    observer_->AudioPathChanged(settings_.channel.name, what);
  });
  const Time before = latest_;
  const auto note = [&] {
    latest_ = std::max(before, session.placer().latest());
    formerJumps_ += session.jumps();
  };
  try {
    const bool ended = ReadToEnd(reader, session);
    note();
    return ended;
  } catch (...) {
    note();
    throw;
  }
}

bool ChannelIngest::ReadToEnd(RenditionReader& reader, SourceSession& session) {
  // What is pushed has to be read in time: it would overflow in the buffers of the network.
  const bool waits = reader.info().kind != SourceKind::kPush || !settings_.now;
  const bool inBatches = settings_.decodeBatches && reader.info().kind == SourceKind::kFile;
  DecodeBatches::Turn turn;
  bool silent = false;
  std::uint64_t renames = reader.renames();
  if (!BeginDecoding(reader)) {
    return false;
  }
  for (;;) {
    const auto begun = std::chrono::steady_clock::now();
    if (turn && !queue_.hasRoom()) {
      turn.End();
    }
    if (waits && !queue_.WaitForRoom()) {
      return false;
    }
    if (inBatches && !turn) {
      turn = settings_.decodeBatches->Take();
    }
    waitedForRoom_ += std::chrono::steady_clock::now() - begun;
    try {
      MediaItem item = InSource([&] { return reader.Read(); });
      if (silent) {
        observer_->ChannelOpened(settings_.channel.name, reader.info());
        silent = false;
      }
      if (reader.renames() != renames) {
        renames = reader.renames();
        if (!AnnounceName(reader)) {
          return false;
        }
      }
      if (std::holds_alternative<EndOfMedia>(item)) {
        return session.Finish();
      }
      if (!session.Handle(std::move(item))) {
        return false;
      }
      if (session.placer().TakeProgress()) {
        delay_.Reset();
      }
      Report(session, reader);
      if (!NoteChange(reader) || !FollowLoad(reader, session)) {
        return false;
      }
    } catch (const MediaError& error) {
      if (!settings_.now) {
        // What was read before the failure is still shown, but not after a limit of a live wall.
        session.Finish();
      }
      if (!settings_.isLive() || !reader.canGoOn()) {
        throw;
      }
      silent = true;
      latest_ = std::max(latest_, session.placer().latest());
      observer_->ChannelFailed(settings_.channel.name, error.reason(), milliseconds(0));
      if (!Announce({SourceEvent::Kind::kFailed, false, false, error.reason()})) {
        return false;
      }
    }
  }
}

bool ChannelIngest::BeginDecoding(RenditionReader& reader) {
  observedAt_ = std::chrono::steady_clock::now();
  decodedFor_ = {};
  const std::optional<VideoInfo>& video = reader.info().video;
  if (!settings_.pressure || !video) {
    reader.SetStep(settings_.renderStep);
    return true;
  }
  const Time now = settings_.now();
  FollowWindow(*video, now);
  DecodePolicy::Load load;
  load.frames = 1;
  return Decide(reader, now, load);
}

void ChannelIngest::FollowWindow(const VideoInfo& video, Time now) {
  const WindowSize size = settings_.SizeAt(now);
  if (decodedFor_ != size) {
    decodedFor_ = size;
    policy_.Opened({video.width >= 2 * size.width && video.height >= 2 * size.height,
                    video.frameRate.value() / settings_.canvas.frameRate.value()},
                   now);
  }
}

bool ChannelIngest::FollowLoad(RenditionReader& reader, SourceSession& session) {
  const auto now = std::chrono::steady_clock::now();
  const double elapsed = std::chrono::duration<double>(now - observedAt_).count();
  DecodePolicy::Load load;
  load.isLate = session.placer().behind() > kLate;
  if (!settings_.pressure || !reader.info().video || elapsed < (load.isLate ? kSoon : 1.0)) {
    return true;
  }
  observedAt_ = now;
  const double waited = std::chrono::duration<double>(std::exchange(waitedForRoom_, {}) +
                                                      reader.TakeWaited() + session.TakeWaited())
                            .count();
  load.busy = std::clamp(1 - waited / elapsed, 0.0, 1.0);
  const Time lead = session.placer().latest() - settings_.now();
  load.gains = reader.info().kind != SourceKind::kPush && lead > std::exchange(lead_, lead);
  load.frames = reader.TakeFrames() / elapsed / settings_.canvas.frameRate.value();
  FollowWindow(*reader.info().video, settings_.now());
  return Decide(reader, settings_.now(), load);
}

// Nothing else is seen beside it.
bool ChannelIngest::FillsCanvas(const config::Window& window) const {
  return window.width * 10 >= settings_.canvas.width * 9 ||
         window.height * 10 >= settings_.canvas.height * 9;
}

bool ChannelIngest::Decide(RenditionReader& reader, Time now, DecodePolicy::Load load) {
  load.pressure = settings_.pressure->level();
  load.isImportant = settings_.channel.selected;
  load.isShown = settings_.channel.options.enabled;
  if (settings_.windows) {
    const WindowState window = settings_.windows->At(settings_.slot, now + settings_.delay());
    load.isImportant = window.isSelected || FillsCanvas(window.place);
    load.isShown = window.isShown;
  }
  policy_.SetSetting(decode_);
  if (settings_.decodeSeat) {
    settings_.decodeSeat->SetImportant(load.isImportant);
    load.admits = [&](double processors) {
      return settings_.decodeSeat->Admit(now, processors, policy_.step());
    };
  }
  const bool wasKeyframesOnly = policy_.step() == DecodeStep::kKeyframesOnly;
  const bool hasChanged = policy_.Observe(now, load);
  reader.SetStep(policy_.step());
  if (policy_.complains()) {
    settings_.pressure->Complain(now);
  }
  if (settings_.decodeSeat && (policy_.complains() || policy_.isOverloaded())) {
    settings_.decodeSeat->NoteOverload(now);
  }
  if (!hasChanged) {
    return true;
  }
  observer_->DecodingChanged(settings_.channel.name, policy_.step(), policy_.reason());
  SourceEvent event;
  event.kind = SourceEvent::Kind::kDecoding;
  event.keyframesOnly = policy_.step() == DecodeStep::kKeyframesOnly;
  return event.keyframesOnly == wasKeyframesOnly || Announce(std::move(event));
}

// Once a second.
void ChannelIngest::Report(const SourceSession& session, const RenditionReader& reader) {
  if (!settings_.now) {
    return;
  }
  const Time now = settings_.now();
  if (now - reportedAt_ < kSecond) {
    return;
  }
  reportedAt_ = now;
  const ItemPlacer& placer = session.placer();
  observer_->ChannelTimed(
      settings_.channel.name,
      {placer.jitter(), placer.lead(), placer.leftOut().tooEarly, placer.leftOut().tooLate,
       session.lostFrames(), session.lostAudio(), queue_.dropped(), formerJumps_ + session.jumps(),
       SourceCounts(formerCounts_) += reader.counts()});
}

}  // namespace host
