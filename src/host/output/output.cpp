#include "host/output/output.h"

#include "host/output/output_writer.h"
#include "platform/os/waitable.h"

namespace host {
namespace {

using std::chrono::milliseconds;

// A file that does not grow for that long while it is being finished is left as it is.
constexpr std::uint32_t kFileStall = 2'000;
// For calls that were cancelled to end. What is not over then never ends.
constexpr std::uint32_t kCancelLimit = 500;

}  // namespace

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

void Output::TakeAudio(std::size_t channel, const AVPacket& packet, Time shift) {
  if (channel >= writer_->settings.session.tracks.size()) {
    return;
  }
  ++writer_->counters.of(static_cast<int>(channel)).received;
  TrackPacket item{static_cast<int>(channel), ffmpeg::RefPacket(packet), shift};
  if (!writer_->settings.live) {
    // Whoever drives the wall waits for room.
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
  // A file grows as long as it is finished, be its disk slow or its index moved to its beginning.
  for (std::int64_t bytes = writer_->FileBytes(); !ended && bytes != before;
       bytes = writer_->FileBytes()) {
    before = bytes;
    ended = thread_->Wait(kFileStall);
  }
  if (!ended) {
    writer_->Cancel();
    if (!thread_->Wait(kCancelLimit)) {
      writer_->Fail("it does not answer and was abandoned");
      writer_->Detach();
    }
  }
  thread_.reset();
}

}  // namespace host
