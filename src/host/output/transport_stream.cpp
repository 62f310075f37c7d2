#include "host/output/transport_stream.h"

#include <algorithm>
#include <array>
#include <chrono>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "platform/os/thread.h"

namespace host {
namespace {

constexpr std::size_t kMaxHurry = 4;
constexpr Time kMinInterval = 2 * kMillisecond;
constexpr Time kMaxInterval = 100 * kMillisecond;

// The PCR of a packet, in units of 1/90,000 s.
std::optional<std::int64_t> PcrOf(const std::uint8_t* packet) {
  const bool hasField = (packet[3] & 0x20) != 0 && packet[4] >= 7;
  if (!hasField || (packet[5] & 0x10) == 0) {
    return {};
  }
  return std::int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 |
         packet[10] >> 7;
}

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

// Of the PCR, in units of 1/90,000 s.
constexpr std::int64_t kMaxGapTicks = std::int64_t{80} * 90;
constexpr std::int64_t kStepTicks = std::int64_t{40} * 90;
// A longer gap is a pause of the source.
constexpr std::int64_t kMaxFilledTicks = std::int64_t{10} * 90'000;
constexpr std::int64_t kWrapTicks = std::int64_t{1} << 33;
constexpr int kPacket = TransportPacer::kPacketSize;
constexpr int kBuffer = kPacket * 348;

}  // namespace

void TransportPacer::Push(std::span<const std::uint8_t, kPacketSize> bytes) {
  Packet packet;
  std::copy(bytes.begin(), bytes.end(), packet.bytes.begin());
  if (const std::optional<std::int64_t> pcr = PcrOf(bytes.data())) {
    packet.hasPcr = true;
    ++clocks_;
    // Of a jump back, the counter's wrap aside, the distance says nothing.
    const std::int64_t step = pcr_ ? (*pcr - *pcr_) & (kWrapTicks - 1) : kWrapTicks;
    if (step < kWrapTicks / 2) {
      interval_ = std::clamp(step * kSecond / 90'000, kMinInterval, kMaxInterval);
    }
    pcr_ = pcr;
  }
  packets_.push_back(packet);
}

std::vector<std::uint8_t> TransportPacer::Take(std::size_t most, Time now) {
  const std::size_t waiting = packets_.size();
  const std::size_t count = std::min(most, waiting);
  const Time allWithin = interval_ * share_ / 100 *
                         static_cast<Time>(std::max(clocks_, kMaxHurry)) /
                         static_cast<Time>(kMaxHurry);
  if (now >= end_) {
    end_ = now + allWithin / 4;
  }
  std::vector<std::uint8_t> datagram;
  datagram.reserve(count * kPacketSize);
  for (std::size_t i = 0; i < count; ++i) {
    const Packet& packet = packets_.front();
    if (packet.hasPcr) {
      --clocks_;
      end_ = now + allWithin;
    }
    datagram.insert(datagram.end(), packet.bytes.begin(), packet.bytes.end());
    packets_.pop_front();
  }
  due_ = waiting == 0 ? now
                      : now + (end_ - now) * static_cast<Time>(count) / static_cast<Time>(waiting);
  return datagram;
}

PacedOutput::PacedOutput(ffmpeg::Connection connection, ffmpeg::IoDeadline& deadline, int share)
    : connection_(std::move(connection)),
      deadline_(deadline),
      packetsInOne_(std::max<std::size_t>(
          1, static_cast<std::size_t>(std::max(0, connection_->max_packet_size)) /
                 TransportPacer::kPacketSize)),
      io_(ffmpeg::MakeWritingIo(this, &OnWrite)),
      pacer_(share) {
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "pacer");
}

PacedOutput::~PacedOutput() {
  {
    const os::MutexLock guard(lock_);
    ends_ = true;
  }
  changed_.NotifyAll();
  thread_->Wait(os::kInfinite);
}

int PacedOutput::OnWrite(void* output, std::uint8_t* bytes, int size) {
  return static_cast<PacedOutput*>(output)->Write(bytes, size);
}

int PacedOutput::Write(const std::uint8_t* bytes, int size) {
  partial_.insert(partial_.end(), bytes, bytes + size);
  {
    const os::MutexLock guard(lock_);
    while (error_ == 0 && pacer_.bytes() > kMaxBytes) {
      if (deadline_.ShouldStop()) {
        return AVERROR_EXIT;
      }
      changed_.WaitUntil(lock_, Clock::now() + kCancelInterval);
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
  changed_.NotifyAll();
  return size;
}

int PacedOutput::Drain() {
  const os::MutexLock guard(lock_);
  while (error_ == 0 && (!pacer_.empty() || isSending_)) {
    if (deadline_.ShouldStop()) {
      return AVERROR_EXIT;
    }
    changed_.WaitUntil(lock_, Clock::now() + kCancelInterval);
  }
  return error_;
}

std::vector<std::uint8_t> PacedOutput::NextDatagram() {
  const os::MutexLock guard(lock_);
  while (!ends_ && (error_ != 0 || pacer_.empty())) {
    changed_.Wait(lock_);
  }
  const Time due = pacer_.due();
  while (!ends_ && due > Now() && changed_.WaitUntil(lock_, At(due))) {
  }
  if (ends_) {
    return {};
  }
  isSending_ = true;
  return pacer_.Take(packetsInOne_, std::max(due, Now() - kMillisecond));
}

void PacedOutput::Run() {
  for (;;) {
    const std::vector<std::uint8_t> datagram = NextDatagram();
    if (datagram.empty()) {
      return;
    }
    avio_write(connection_.get(), datagram.data(), static_cast<int>(datagram.size()));
    avio_flush(connection_.get());
    const int error = connection_->error;
    hasSent_ = hasSent_ || error == 0;
    {
      const os::MutexLock guard(lock_);
      isSending_ = false;
      error_ = error;
    }
    changed_.NotifyAll();
  }
}

PcrFiller::PcrFiller(AVIOContext* below)
    : below_(below), io_(ffmpeg::MakeWritingIo(this, &OnWrite, nullptr, kBuffer)) {}

int PcrFiller::OnWrite(void* filler, std::uint8_t* bytes, int size) {
  return static_cast<PcrFiller*>(filler)->Write(bytes, size);
}

int PcrFiller::Write(const std::uint8_t* bytes, int size) {
  for (int at = 0; at + kPacket <= size; at += kPacket) {
    Note(bytes + at);
  }
  avio_write(below_, bytes, size);
  avio_flush(below_);
  return below_->error < 0 ? below_->error : size;
}

void PcrFiller::Note(const std::uint8_t* packet) {
  const int pid = (packet[1] & 0x1F) << 8 | packet[2];
  if (const std::optional<std::int64_t> pcr = PcrOf(packet)) {
    pid_ = pid;
    latest_ = pcr;
    if (announced_) {
      offset_ = *latest_ - *announced_;
      announced_.reset();
    }
  }
  if (pid == pid_ && (packet[3] & 0x10) != 0) {
    counter_ = packet[3] & 0x0F;
  }
}

void PcrFiller::Announce(std::int64_t dts, bool carriesPcr) {
  Flush();
  announced_.reset();  // that packet had none
  if (latest_ && offset_) {
    // Both wrap around.
    const std::int64_t gap = ((dts + *offset_ - *latest_) % kWrapTicks + kWrapTicks) % kWrapTicks;
    if (gap <= kMaxFilledTicks) {
      const std::int64_t from = *latest_;
      for (std::int64_t filled = kStepTicks; gap - filled > kMaxGapTicks - kStepTicks;
           filled += kStepTicks) {
        Insert((from + filled) % kWrapTicks);
      }
      Flush();
    }
  }
  if (carriesPcr) {
    announced_ = dts;
  }
}

void PcrFiller::Insert(std::int64_t pcr) {
  std::array<std::uint8_t, kPacket> packet;
  packet.fill(0xFF);
  packet[0] = 0x47;
  packet[1] = static_cast<std::uint8_t>(pid_ >> 8);
  packet[2] = static_cast<std::uint8_t>(pid_);
  packet[3] = static_cast<std::uint8_t>(0x20 | counter_);  // without payload it does not count
  packet[4] = kPacket - 5;
  packet[5] = 0x10;
  for (int i = 0; i < 4; ++i) {
    packet[std::size_t{6} + static_cast<std::size_t>(i)] =
        static_cast<std::uint8_t>(pcr >> (25 - 8 * i));
  }
  packet[10] = static_cast<std::uint8_t>((pcr & 1) << 7 | 0x7E);
  packet[11] = 0;
  avio_write(io_.get(), packet.data(), kPacket);
}

int PcrFiller::Flush() {
  avio_flush(io_.get());
  return io_->error;
}

}  // namespace host
