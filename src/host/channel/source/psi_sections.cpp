#include "host/channel/source/psi_sections.h"

extern "C" {
#include <libavutil/crc.h>
}

namespace host {
namespace {

constexpr std::size_t kLengthEnd = 3;  // table, flags and length
constexpr std::size_t kCrc = 4;
constexpr std::size_t kParity = 16;  // of a Reed-Solomon code, behind a packet

}  // namespace

std::size_t TransportPackets::NextSync(Bytes bytes) {
  const auto isSync = [&](std::size_t at) { return at >= bytes.size() || bytes[at] == kSync; };
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (bytes[at] == kSync && (isSync(at + kSize) || isSync(at + kSize + kParity))) {
      return at;
    }
  }
  return bytes.size();
}

void SectionReader::Follow(int pid) {
  if (sections_.size() < kMaxPids) {
    sections_.try_emplace(pid);
  }
}

void SectionReader::Packet(Bytes packet, const Sink& sink) {
  const bool isDamaged = (packet[1] & 0x80) != 0;
  const bool startsSection = (packet[1] & 0x40) != 0;
  const bool hasAdaptation = (packet[3] & 0x20) != 0;
  const bool hasPayload = (packet[3] & 0x10) != 0;
  const int pid = TransportPackets::PidOf(packet);
  const auto followed = sections_.find(pid);
  const std::size_t at = hasAdaptation ? std::size_t{5} + packet[4] : 4;
  if (isDamaged || !hasPayload || followed == sections_.end() || at >= packet.size()) {
    return;
  }
  const Bytes payload = packet.subspan(at);
  // A packet that got lost in between is found by the CRC.
  Section& bytes = followed->second;
  if (!startsSection) {
    if (!bytes.empty()) {
      bytes.insert(bytes.end(), payload.begin(), payload.end());
      TakeSections(pid, bytes, sink);
    }
    return;
  }
  const std::size_t rest = payload[0];  // of the section before
  if (rest >= payload.size()) {
    bytes.clear();
    return;
  }
  const auto next = payload.begin() + 1 + static_cast<std::ptrdiff_t>(rest);
  if (!bytes.empty()) {
    bytes.insert(bytes.end(), payload.begin() + 1, next);
    TakeSections(pid, bytes, sink);
  }
  bytes.assign(next, payload.end());
  TakeSections(pid, bytes, sink);
}

void SectionReader::TakeSections(int pid, Section& bytes, const Sink& sink) {
  constexpr std::uint8_t kStuffing = 0xFF;
  while (bytes.size() >= kLengthEnd && bytes[0] != kStuffing) {
    const std::size_t size = kLengthEnd + LengthAt(bytes, 1);
    if (size > bytes.size()) {
      return;
    }
    const Section section(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    const bool isInForce = size >= kHeader + kCrc && (section[5] & 1) != 0;
    if (isInForce && av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0U, section.data(), size) == 0) {
      sink(pid, Bytes(section).first(size - kCrc));
    }
  }
  if (!bytes.empty() && bytes[0] == kStuffing) {
    bytes.clear();
  }
}

}  // namespace host
