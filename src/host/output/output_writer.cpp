#include "host/output/output_writer.h"

#include <algorithm>

#include "host/config/url.h"

namespace host {

using std::chrono::milliseconds;

OutputWriter::OutputWriter(Output::Settings given, ffmpeg::Parameters video,
                           OutputObserver* observer, qorp::log::ILogPerf* logger)
    : settings(std::move(given)),
      counters(settings.session.tracks.size()),
      queue(settings.queue, counters),
      video_(std::move(video)),
      observer_(observer),
      logger_(logger) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(settings.pin.c_str());
  }
  const std::string& url = settings.session.muxer.url;
  if (config::LocalPath(url) && !ffmpeg::PipeOutput::Serves(url)) {
    recording_.emplace(url, settings.existing);
  }
}

void OutputWriter::NoteOverflow() {
  ++overflows;
  const std::lock_guard guard(contactsLock_);
  if (logger_ != nullptr) {
    logger_->NotifyBufferFull(settings.pin.c_str());
  }
}

void OutputWriter::Cancel() {
  const std::lock_guard guard(lock_);
  cancelled_ = true;
  if (session_ != nullptr) {
    session_->Cancel();
  }
}

void OutputWriter::Detach() {
  const std::lock_guard guard(contactsLock_);
  observer_ = nullptr;
  logger_ = nullptr;
}

void OutputWriter::Fail(const std::string& reason) {
  SetFailure(reason);
  failed = true;
  queue.Abandon();
  Tell([&](OutputObserver& observer) {
    observer.OutputFailed(settings.name, reason, std::nullopt);
  });
}

// Called by each session when a target of it is open, the first and every further segment.
void OutputWriter::Opened(const OutputSession& session, const std::string& file) {
  using Opening = OutputObserver::Opening;
  Opening opening = Opening::kNext;
  if (session.targets() == 1) {
    const bool again = ++openings > 1 || !failure().empty();
    const bool beside = !file.empty() && recording_->avoided();
    opening = again ? Opening::kAgain : beside ? Opening::kBeside : Opening::kFirst;
    SetFailure("");
  }
  if (!file.empty()) {
    ++fileCount;
    const std::lock_guard guard(lock_);
    file_ = file;
  }
  Tell([&](OutputObserver& observer) {
    observer.OutputOpened(settings.name, file.empty() ? settings.name : file, opening);
  });
}

std::string OutputWriter::file() const {
  const std::lock_guard guard(lock_);
  return file_;
}

bool OutputWriter::SetSession(OutputSession* session) {
  const std::lock_guard guard(lock_);
  session_ = session;
  return !cancelled_;
}

void OutputWriter::SetFailure(const std::string& reason) {
  const std::lock_guard guard(lock_);
  failure_ = reason;
}

std::string OutputWriter::failure() const {
  const std::lock_guard guard(lock_);
  return failure_.empty() ? encoderFailure_ : failure_;
}

void OutputWriter::EncoderFailed(const std::string& reason, std::optional<milliseconds> retryIn) {
  {
    const std::lock_guard guard(lock_);
    encoderFailure_ = reason;
  }
  if (!retryIn) {
    failed = true;
    queue.Abandon();
  }
  Tell([&](OutputObserver& observer) { observer.OutputFailed(settings.name, reason, retryIn); });
}

void OutputWriter::EncoderRecovered() {
  {
    const std::lock_guard guard(lock_);
    encoderFailure_.clear();
    if (!failure_.empty()) {
      return;  // reported when it is open
    }
  }
  const std::string target = file();
  Tell([&](OutputObserver& observer) {
    observer.OutputOpened(settings.name, target.empty() ? settings.name : target,
                          OutputObserver::Opening::kAgain);
  });
}

std::string OutputWriter::RunSession(OutputSession& session) {
  try {
    while (std::optional<TrackPacket> packet = queue.Pop()) {
      session.Take(std::move(*packet));
    }
    session.Finish();
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

void OutputWriter::Run() {
  milliseconds delay = settings.minDelay;
  for (bool hasFailed = false;; hasFailed = true) {
    std::optional<OutputSession> session;
    session.emplace(
        settings.session, *video_, counters,
        OutputSession::Owner{
            recording_ ? &*recording_ : nullptr,
            [this](const std::string& what) {
              Tell([&](OutputObserver& observer) { observer.OutputSaid(settings.name, what); });
            },
            [this](const OutputSession& open, const std::string& file) { Opened(open, file); },
            !recording_ && settings.live ? [this] { return queue.SkipToNewestKeyframe(); }
                                         : std::function<bool()>(),
            hasFailed ? settings.openAfter : 0});
    const std::string reason = SetSession(&*session) ? RunSession(*session) : "stopped";
    const bool goesOn = SetSession(nullptr) && settings.live && !failed;
    if (reason.empty() || failed) {
      return;
    }
    SetFailure(reason);
    if (session->length() >= settings.maxDelay.count() * kMillisecond) {
      delay = settings.minDelay;
    }
    // A consumer that serves one connection has room for the next one, and a disk for the next
    // file.
    session.reset();
    Tell([&](OutputObserver& observer) {
      observer.OutputFailed(settings.name, reason, goesOn ? std::optional(delay) : std::nullopt);
    });
    if (!goesOn || !queue.DiscardFor(delay)) {
      break;
    }
    delay = std::min(delay * 2, settings.maxDelay);
  }
  failed = true;
  queue.Abandon();
}

std::int64_t OutputWriter::FileBytes() {
  const std::lock_guard guard(lock_);
  return recording_ && session_ != nullptr ? session_->fileBytes() : 0;
}

}  // namespace host
