#include "host/output/transport_pacer.h"

#include <algorithm>

namespace host {
namespace {

constexpr std::size_t kMaxHurry = 4;
constexpr Time kMinInterval = 2 * kMillisecond;
constexpr Time kMaxInterval = 100 * kMillisecond;

// In units of 90 kHz.
std::optional<std::int64_t> PcrOf(std::span<const std::uint8_t> packet) {
  const bool hasField = (packet[3] & 0x20) != 0 && packet[4] >= 7;
  if (!hasField || (packet[5] & 0x10) == 0) {
    return {};
  }
  return std::int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 |
         packet[10] >> 7;
}

}  // namespace

void TransportPacer::Push(std::span<const std::uint8_t, kPacketSize> bytes) {
  Packet packet;
  std::copy(bytes.begin(), bytes.end(), packet.bytes.begin());
  if (const std::optional<std::int64_t> pcr = PcrOf(bytes)) {
    packet.hasPcr = true;
    ++clocks_;
    if (pcr_) {
      interval_ = std::clamp((*pcr - *pcr_) * kSecond / 90'000, kMinInterval, kMaxInterval);
    }
    pcr_ = pcr;
  }
  packets_.push_back(packet);
}

std::vector<std::uint8_t> TransportPacer::Take(std::size_t most, Time now) {
  const std::size_t waiting = packets_.size();
  const std::size_t count = std::min(most, waiting);
  // A tenth of the time is left, so that jitter of the encoder does not add up.
  const Time allWithin = interval_ * 9 / 10 * static_cast<Time>(std::max(clocks_, kMaxHurry)) /
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

}  // namespace host
