#include "host/output/output.h"

#include <algorithm>

#include "host/wall/url.h"
#include "platform/os/waitable.h"

namespace host {
namespace {

using std::chrono::milliseconds;

// A file that does not grow for that long while it is being finished is left as it is.
constexpr std::uint32_t kFileStall = 2'000;

}  // namespace

Output::Output(Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
               qorp::log::ILogPerf* logger)
    : settings_(std::move(settings)),
      video_(std::move(video)),
      observer_(observer),
      logger_(logger),
      counters_(settings_.pass.tracks.size()),
      queue_(settings_.queue, counters_) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(settings_.pin.c_str());
  }
  const std::string& url = settings_.pass.muxer.url;
  if (wall::LocalPath(url) && !ffmpeg::PipeOutput::Serves(url)) {
    recording_.emplace(url, settings_.existing);
  }
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "output");
}

Output::~Output() {
  if (thread_) {
    Finish(milliseconds(0));
  }
}

void Output::NoteOverflow() {
  ++overflows_;
  if (logger_ != nullptr) {
    logger_->NotifyBufferFull(settings_.pin.c_str());
  }
}

void Output::TakeVideo(const AVPacket& packet) {
  ++counters_.of(TrackPacket::kVideo).received;
  TrackPacket item{TrackPacket::kVideo, ffmpeg::RefPacket(packet)};
  if (!settings_.live) {
    queue_.PushWaiting(std::move(item));
  } else if (queue_.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    NoteOverflow();
  }
}

void Output::TakeSound(std::size_t channel, const AVPacket& packet, Time shift) {
  if (channel >= settings_.pass.tracks.size()) {
    return;
  }
  ++counters_.of(static_cast<int>(channel)).received;
  TrackPacket item{static_cast<int>(channel), ffmpeg::RefPacket(packet), shift};
  if (!settings_.live) {
    // Whoever drives the wall waits for room.
    queue_.Push(std::move(item));
  } else if (queue_.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    NoteOverflow();
  }
}

// Called by each pass when a target of it is open, the first and every further segment.
void Output::Opened(const OutputPass& pass, const std::string& file) {
  using Opening = OutputObserver::Opening;
  Opening opening = Opening::kNext;
  if (pass.targets() == 1) {
    const bool again = ++openings_ > 1 || !failure().empty();
    const bool beside = !file.empty() && recording_->avoided();
    opening = again ? Opening::kAgain : beside ? Opening::kBeside : Opening::kFirst;
    SetFailure("");
  }
  if (!file.empty()) {
    ++fileCount_;
    const std::lock_guard guard(lock_);
    file_ = file;
  }
  observer_->OutputOpened(settings_.name, file.empty() ? settings_.name : file, opening);
}

std::string Output::file() const {
  const std::lock_guard guard(lock_);
  return file_;
}

bool Output::SetPass(OutputPass* pass) {
  const std::lock_guard guard(lock_);
  pass_ = pass;
  return !cancelled_;
}

void Output::SetFailure(const std::string& reason) {
  const std::lock_guard guard(lock_);
  failure_ = reason;
}

std::string Output::failure() const {
  const std::lock_guard guard(lock_);
  return failure_.empty() ? encoderFailure_ : failure_;
}

void Output::EncoderFailed(const std::string& reason, std::optional<milliseconds> retryIn) {
  {
    const std::lock_guard guard(lock_);
    encoderFailure_ = reason;
  }
  if (!retryIn) {
    failed_ = true;
    queue_.Abandon();
  }
  observer_->OutputFailed(settings_.name, reason, retryIn);
}

void Output::EncoderRecovered() {
  {
    const std::lock_guard guard(lock_);
    encoderFailure_.clear();
    if (!failure_.empty()) {
      return;  // reported when it is open
    }
  }
  const std::string target = file();
  observer_->OutputOpened(settings_.name, target.empty() ? settings_.name : target,
                          OutputObserver::Opening::kAgain);
}

std::string Output::RunPass(OutputPass& pass) {
  try {
    while (std::optional<TrackPacket> packet = queue_.Pop()) {
      pass.Take(std::move(*packet));
    }
    pass.Finish();
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

void Output::Run() {
  milliseconds delay = settings_.firstDelay;
  for (bool hasFailed = false;; hasFailed = true) {
    std::optional<OutputPass> pass;
    pass.emplace(
        settings_.pass, *video_, counters_,
        OutputPass::Owner{
            recording_ ? &*recording_ : nullptr,
            [this](const std::string& what) { observer_->OutputSaid(settings_.name, what); },
            [this](const OutputPass& open, const std::string& file) { Opened(open, file); },
            !recording_ && settings_.live ? [this] { return queue_.SkipToNewestKeyframe(); }
                                          : std::function<bool()>(),
            hasFailed ? settings_.openAfter : 0});
    const std::string reason = SetPass(&*pass) ? RunPass(*pass) : "stopped";
    const bool goesOn = SetPass(nullptr) && settings_.live && !failed_;
    if (reason.empty() || failed_) {
      return;
    }
    SetFailure(reason);
    if (pass->length() >= settings_.longestDelay.count() * kMillisecond) {
      delay = settings_.firstDelay;
    }
    // A consumer that serves one connection has room for the next one, and a disk for the next
    // file.
    pass.reset();
    observer_->OutputFailed(settings_.name, reason, goesOn ? std::optional(delay) : std::nullopt);
    if (!goesOn || !queue_.DiscardFor(delay)) {
      break;
    }
    delay = std::min(delay * 2, settings_.longestDelay);
  }
  failed_ = true;
  queue_.Abandon();
}

std::int64_t Output::FileBytes() {
  const std::lock_guard guard(lock_);
  return recording_ && pass_ != nullptr ? pass_->fileBytes() : 0;
}

void Output::Finish(milliseconds limit) {
  queue_.Close();
  std::int64_t before = FileBytes();
  if (thread_->Wait(static_cast<std::uint32_t>(limit.count()))) {
    return;
  }
  // A file grows as long as it is finished, be its disk slow or its index moved to its beginning.
  for (std::int64_t bytes = FileBytes(); bytes != before; bytes = FileBytes()) {
    before = bytes;
    if (thread_->Wait(kFileStall)) {
      return;
    }
  }
  {
    const std::lock_guard guard(lock_);
    cancelled_ = true;
    if (pass_ != nullptr) {
      pass_->Cancel();
    }
  }
  thread_->Wait(os::kInfinite);
}

}  // namespace host
