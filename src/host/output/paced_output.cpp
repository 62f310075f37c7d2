#include "host/output/paced_output.h"

#include <algorithm>
#include <chrono>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "platform/os/waitable.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxBytes = 8 << 20;
// How long a cancelled write may take to notice.
constexpr std::chrono::milliseconds kCancelInterval(20);

Time Now() {
  return std::chrono::nanoseconds(Clock::now().time_since_epoch()).count() / 100;
}

Clock::time_point At(Time time) {
  return Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(time * 100)));
}

}  // namespace

PacedOutput::PacedOutput(ffmpeg::Connection connection, ffmpeg::IoDeadline& deadline)
    : connection_(std::move(connection)),
      deadline_(deadline),
      packetsInOne_(std::max<std::size_t>(
          1, static_cast<std::size_t>(std::max(0, connection_->max_packet_size)) /
                 TransportPacer::kPacketSize)),
      io_(ffmpeg::MakeWritingIo(this, &OnWrite)) {
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "pacer");
}

PacedOutput::~PacedOutput() {
  {
    const std::lock_guard guard(lock_);
    ends_ = true;
  }
  changed_.notify_all();
  thread_->Wait(os::kInfinite);
}

int PacedOutput::OnWrite(void* output, std::uint8_t* bytes, int size) {
  return static_cast<PacedOutput*>(output)->Write(bytes, size);
}

int PacedOutput::Write(const std::uint8_t* bytes, int size) {
  partial_.insert(partial_.end(), bytes, bytes + size);
  {
    std::unique_lock guard(lock_);
    while (error_ == 0 && pacer_.bytes() > kMaxBytes) {
      if (deadline_.ShouldStop()) {
        return AVERROR_EXIT;
      }
      changed_.wait_for(guard, kCancelInterval);
    }
    if (error_ != 0) {
      return error_;
    }
    std::size_t at = 0;
    for (; at + TransportPacer::kPacketSize <= partial_.size(); at += TransportPacer::kPacketSize) {
      pacer_.Push(std::span<const std::uint8_t, TransportPacer::kPacketSize>(
          partial_.data() + at, TransportPacer::kPacketSize));
    }
    partial_.erase(partial_.begin(), partial_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  changed_.notify_all();
  return size;
}

int PacedOutput::Drain() {
  std::unique_lock guard(lock_);
  while (error_ == 0 && (!pacer_.empty() || isSending_)) {
    if (deadline_.ShouldStop()) {
      return AVERROR_EXIT;
    }
    changed_.wait_for(guard, kCancelInterval);
  }
  return error_;
}

void PacedOutput::Run() {
  std::unique_lock guard(lock_);
  for (;;) {
    changed_.wait(guard, [this] { return ends_ || (error_ == 0 && !pacer_.empty()); });
    const Time due = pacer_.due();
    if (!ends_ && due > Now()) {
      changed_.wait_until(guard, At(due), [this] { return ends_; });
    }
    if (ends_) {
      return;
    }
    const std::vector<std::uint8_t> datagram =
        pacer_.Take(packetsInOne_, std::max(due, Now() - kMillisecond));
    isSending_ = true;
    guard.unlock();
    avio_write(connection_.get(), datagram.data(), static_cast<int>(datagram.size()));
    avio_flush(connection_.get());
    const int error = connection_->error;
    hasSent_ = hasSent_ || error == 0;
    guard.lock();
    isSending_ = false;
    error_ = error;
    changed_.notify_all();
  }
}

}  // namespace host
