#include "host/output/pcr_filler.h"

#include <algorithm>
#include <array>

extern "C" {
#include <libavformat/avio.h>
}

namespace host {
namespace {

constexpr int kPacket = 188;  // bytes
constexpr std::int64_t kMaxGap = 80 * 90;
constexpr std::int64_t kStep = 40 * 90;
// Whoever pauses for longer has nothing to fill.
constexpr std::int64_t kMaxFilled = 10 * 90'000;
constexpr std::int64_t kPeriod = std::int64_t{1} << 33;
constexpr int kBuffer = kPacket * 348;

}  // namespace

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
  const bool hasAdaptation = (packet[3] & 0x20) != 0;
  if (hasAdaptation && packet[4] > 6 && (packet[5] & 0x10) != 0) {
    pid_ = pid;
    latest_ = std::int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 |
              packet[10] >> 7;
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
    const std::int64_t gap = ((dts + *offset_ - *latest_) % kPeriod + kPeriod) % kPeriod;
    if (gap <= kMaxFilled) {
      const std::int64_t from = *latest_;
      for (std::int64_t filled = kStep; gap - filled > kMaxGap - kStep; filled += kStep) {
        Insert((from + filled) % kPeriod);
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
    packet[static_cast<std::size_t>(6 + i)] = static_cast<std::uint8_t>(pcr >> (25 - 8 * i));
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
