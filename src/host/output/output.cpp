#include "host/output/output.h"

#include <algorithm>
#include <atomic>
#include <functional>

#include "host/config/url.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

using std::chrono::milliseconds;

namespace {

// A file that does not grow for that long while it is being finished is left as it is.
constexpr std::uint32_t kFileStall = 2'000;
// How long a cancelled call may take to end; later its thread is detached.
constexpr std::uint32_t kAbandonLimit = 500;

}  // namespace

// Writes what waits in its queue, and opens its file or connection again after failures. A write
// into a dead mount may never return: the writer owns everything that its thread uses, and calls
// neither observer nor logger after Detach.
//
// Shared by an Output and its thread. Run is the thread's, the rest any thread's.
class OutputWriter {
 public:
  OutputWriter(Output::Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
               qorp::log::ILogPerf* logger);

  void Run();
  // Ends blocking calls, as far as something can end them.
  void Cancel();
  // Observer and logger may be destroyed afterwards.
  void Detach();
  // It has failed and is not opened again.
  void Fail(const std::string& reason);

  // The observer and the logger are called with the lock of both held, and return at once.
  template <typename Call>
  void Tell(Call call) {
    const os::MutexLock guard(contactsLock_);
    if (observer_ != nullptr) {
      call(*observer_);
    }
  }
  void NoteOverflow();

  std::string failure() const;
  std::string file() const;
  // Bytes that have reached the file that is written; 0 where there is none.
  std::int64_t FileBytes();
  void EncoderFailed(const std::string& reason, std::optional<std::chrono::milliseconds> retryIn);
  void EncoderRecovered();

  const Output::Settings settings;
  OutputCounters counters;
  PacketQueue queue;
  std::atomic<std::uint64_t> overflows{0};
  std::atomic<std::uint64_t> openings{0};
  std::atomic<std::uint64_t> fileCount{0};
  std::atomic<bool> failed{false};

 private:
  // Runs a session to its end. Empty, or why it failed.
  std::string RunSession(OutputSession& session);
  void Opened(const OutputSession& session, const std::string& file);
  // The session that Cancel ends; false when Cancel was called already.
  bool SetSession(OutputSession* session);
  void SetFailure(const std::string& reason);

  const ffmpeg::Parameters video_;
  std::optional<RecordingFiles> recording_;  // the thread's own
  os::Mutex contactsLock_;
  OutputObserver* observer_ GUARDED_BY(contactsLock_);     // null once detached
  qorp::log::ILogPerf* logger_ GUARDED_BY(contactsLock_);  // likewise; may be null
  mutable os::Mutex lock_;
  std::string failure_ GUARDED_BY(lock_);
  std::string encoderFailure_ GUARDED_BY(lock_);
  std::string file_ GUARDED_BY(lock_);
  OutputSession* session_ GUARDED_BY(lock_) = nullptr;  // what Cancel ends
  bool cancelled_ GUARDED_BY(lock_) = false;
};

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
  const os::MutexLock guard(contactsLock_);
  if (logger_ != nullptr) {
    logger_->NotifyBufferFull(settings.pin.c_str());
  }
}

void OutputWriter::Cancel() {
  const os::MutexLock guard(lock_);
  cancelled_ = true;
  if (session_ != nullptr) {
    session_->Cancel();
  }
}

void OutputWriter::Detach() {
  const os::MutexLock guard(contactsLock_);
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
    const os::MutexLock guard(lock_);
    file_ = file;
  }
  Tell([&](OutputObserver& observer) {
    observer.OutputOpened(settings.name, file.empty() ? settings.name : file, opening);
  });
}

std::string OutputWriter::file() const {
  const os::MutexLock guard(lock_);
  return file_;
}

bool OutputWriter::SetSession(OutputSession* session) {
  const os::MutexLock guard(lock_);
  session_ = session;
  return !cancelled_;
}

void OutputWriter::SetFailure(const std::string& reason) {
  const os::MutexLock guard(lock_);
  failure_ = reason;
}

std::string OutputWriter::failure() const {
  const os::MutexLock guard(lock_);
  return failure_.empty() ? encoderFailure_ : failure_;
}

void OutputWriter::EncoderFailed(const std::string& reason, std::optional<milliseconds> retryIn) {
  {
    const os::MutexLock guard(lock_);
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
    const os::MutexLock guard(lock_);
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
  qorp::ReopenDelay delay(settings.reopen);
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
    const bool continues = SetSession(nullptr) && settings.live && !failed;
    if (reason.empty() || failed) {
      return;
    }
    SetFailure(reason);
    delay.ResetIfLasting(Milliseconds(session->length()));
    const milliseconds wait = delay.AfterFailure();
    // Closed before the next attempt: a consumer may serve one connection only, a disk may be full.
    session.reset();
    Tell([&](OutputObserver& observer) {
      observer.OutputFailed(settings.name, reason, continues ? std::optional(wait) : std::nullopt);
    });
    if (!continues || !queue.DiscardFor(wait)) {
      break;
    }
  }
  failed = true;
  queue.Abandon();
}

std::int64_t OutputWriter::FileBytes() {
  const os::MutexLock guard(lock_);
  return recording_ && session_ != nullptr ? session_->fileBytes() : 0;
}

Output::Output(Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
               qorp::log::ILogPerf* logger)
    : writer_(
          std::make_shared<OutputWriter>(std::move(settings), std::move(video), observer, logger)) {
  thread_ = std::make_unique<os::Thread>([writer = writer_] { writer->Run(); }, "output");
}

Output::~Output() {
  Finish(milliseconds(0));
  writer_->Detach();
}

void Output::TakeVideo(const AVPacket& packet) {
  ++writer_->counters.of(TrackPacket::kVideo).received;
  TrackPacket item{TrackPacket::kVideo, ffmpeg::RefPacket(packet)};
  if (!writer_->settings.live) {
    writer_->queue.PushWaiting(std::move(item));
  } else if (writer_->queue.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    writer_->NoteOverflow();
  }
}

void Output::TakeAudio(std::size_t channel, const AVPacket& packet, Time offset) {
  if (channel >= writer_->settings.session.tracks.size()) {
    return;
  }
  ++writer_->counters.of(static_cast<int>(channel)).received;
  TrackPacket item{static_cast<int>(channel), ffmpeg::RefPacket(packet), offset};
  if (!writer_->settings.live) {
    // The wall itself waits for room.
    writer_->queue.Push(std::move(item));
  } else if (writer_->queue.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    writer_->NoteOverflow();
  }
}

void Output::EncoderFailed(const std::string& reason, std::optional<milliseconds> retryIn) {
  writer_->EncoderFailed(reason, retryIn);
}

void Output::EncoderRecovered() {
  writer_->EncoderRecovered();
}

bool Output::WaitForRoom(milliseconds limit) {
  return writer_->queue.WaitForRoom(limit);
}

void Output::Close() {
  writer_->queue.Close();
}

void Output::Abandon() {
  writer_->queue.Abandon();
}

const std::string& Output::name() const {
  return writer_->settings.name;
}

const OutputCounters& Output::counters() const {
  return writer_->counters;
}

std::uint64_t Output::overflows() const {
  return writer_->overflows;
}

std::uint64_t Output::openings() const {
  return writer_->openings;
}

std::uint64_t Output::files() const {
  return writer_->fileCount;
}

std::string Output::file() const {
  return writer_->file();
}

std::size_t Output::queuedBytes() const {
  return writer_->queue.bytes();
}

bool Output::failed() const {
  return writer_->failed;
}

std::string Output::failure() const {
  return writer_->failure();
}

bool Output::WaitForEnd(milliseconds limit) {
  return thread_ == nullptr || thread_->Wait(static_cast<std::uint32_t>(limit.count()));
}

void Output::Finish(milliseconds limit) {
  if (thread_ == nullptr) {
    return;
  }
  writer_->queue.Close();
  std::int64_t before = writer_->FileBytes();
  bool ended = WaitForEnd(limit);
  // A file that grows is still being finished: its disk may be slow, its index may be moved.
  for (std::int64_t bytes = writer_->FileBytes(); !ended && bytes != before;
       bytes = writer_->FileBytes()) {
    before = bytes;
    ended = thread_->Wait(kFileStall);
  }
  if (!ended) {
    writer_->Cancel();
    if (!thread_->Wait(kAbandonLimit)) {
      writer_->Fail("it does not answer and was abandoned");
      writer_->Detach();
    }
  }
  thread_.reset();
}

}  // namespace host
