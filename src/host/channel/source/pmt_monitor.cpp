#include "host/channel/source/pmt_monitor.h"

#include <algorithm>

extern "C" {
#include <libavutil/crc.h>
}

namespace host {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kSync = 0x47;
constexpr int kAssociationPid = 0;
constexpr std::size_t kMaxPrograms = 256;
constexpr std::uint8_t kAssociationTable = 0;
constexpr std::uint8_t kMapTable = 2;
constexpr std::uint8_t kPrivateData = 6;
constexpr std::size_t kSectionHeader = 3;  // table, flags and length
constexpr std::size_t kTableHeader = 8;    // up to the number of the last section
constexpr std::size_t kCrc = 4;

int Pid(Bytes bytes, std::size_t at) {
  return (bytes[at] & 0x1F) << 8 | bytes[at + 1];
}

std::size_t Length(Bytes bytes, std::size_t at) {
  return static_cast<std::size_t>((bytes[at] & 0x0F) << 8 | bytes[at + 1]);
}

// The descriptors that name a codec: registration, and the broadcasters' for AC-3, E-AC-3, DTS, AAC
// and for what is no audio at all.
bool NamesCodec(std::uint8_t tag) {
  constexpr std::array<std::uint8_t, 8> kTags{0x05, 0x56, 0x59, 0x6A, 0x7A, 0x7B, 0x7C, 0x7F};
  return std::find(kTags.begin(), kTags.end(), tag) != kTags.end();
}

}  // namespace

void PmtMonitor::Feed(Bytes bytes) {
  while (!bytes.empty()) {
    if (filled_ == 0) {
      const auto sync = std::find(bytes.begin(), bytes.end(), kSync);
      bytes = bytes.subspan(static_cast<std::size_t>(sync - bytes.begin()));
    }
    const std::size_t count = std::min(bytes.size(), kPacketSize - filled_);
    std::copy_n(bytes.begin(), count, packet_.begin() + static_cast<std::ptrdiff_t>(filled_));
    filled_ += count;
    bytes = bytes.subspan(count);
    if (filled_ == kPacketSize) {
      filled_ = 0;
      Packet(packet_);
    }
  }
}

void PmtMonitor::Packet(Bytes packet) {
  const bool damaged = (packet[1] & 0x80) != 0;
  const bool startsSection = (packet[1] & 0x40) != 0;
  const bool hasAdaptation = (packet[3] & 0x20) != 0;
  const bool hasPayload = (packet[3] & 0x10) != 0;
  const int pid = Pid(packet, 1);
  if (damaged || !hasPayload || (pid != kAssociationPid && !sections_.contains(pid))) {
    return;
  }
  const std::size_t at = hasAdaptation ? std::size_t{5} + packet[4] : 4;
  if (at < packet.size()) {
    Payload(pid, packet.subspan(at), startsSection);
  }
}

void PmtMonitor::Payload(int pid, Bytes payload, bool startsSection) {
  // A packet that got lost in between is found by the CRC.
  Section& bytes = sections_[pid];
  if (!startsSection) {
    if (!bytes.empty()) {
      bytes.insert(bytes.end(), payload.begin(), payload.end());
      TakeSections(pid, bytes);
    }
    return;
  }
  const std::size_t rest = payload[0];  // of the section before
  if (rest >= payload.size()) {
    bytes.clear();
    return;
  }
  if (!bytes.empty()) {
    bytes.insert(bytes.end(), payload.begin() + 1,
                 payload.begin() + 1 + static_cast<std::ptrdiff_t>(rest));
    TakeSections(pid, bytes);
  }
  bytes.assign(payload.begin() + 1 + static_cast<std::ptrdiff_t>(rest), payload.end());
  TakeSections(pid, bytes);
}

void PmtMonitor::TakeSections(int pid, Section& bytes) {
  constexpr std::uint8_t kStuffing = 0xFF;
  while (bytes.size() >= kSectionHeader && bytes[0] != kStuffing) {
    const std::size_t size = kSectionHeader + Length(bytes, 1);
    if (size > bytes.size()) {
      return;
    }
    const Section section(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    const bool inForce = size >= kTableHeader + kCrc && (section[5] & 1) != 0;
    if (!inForce || av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0U, section.data(), size) != 0) {
      continue;
    }
    const Bytes table = Bytes(section).first(size - kCrc);
    if (pid == kAssociationPid && section[0] == kAssociationTable) {
      ProgramAssociation(table);
    } else if (pid != kAssociationPid && section[0] == kMapTable) {
      ProgramMap(table);
    }
  }
  if (!bytes.empty() && bytes[0] == kStuffing) {
    bytes.clear();
  }
}

void PmtMonitor::ProgramAssociation(Bytes section) {
  for (std::size_t at = kTableHeader; at + 4 <= section.size(); at += 4) {
    const bool isProgram = (section[at] | section[at + 1]) != 0;  // 0: the network's table
    if (isProgram && sections_.size() < kMaxPrograms) {
      sections_.try_emplace(Pid(section, at + 2));
    }
  }
}

void PmtMonitor::ProgramMap(Bytes section) {
  std::size_t at = kTableHeader + 4;
  if (at > section.size()) {
    return;
  }
  at += Length(section, at - 2);  // descriptors of the program
  while (at + 5 <= section.size()) {
    const std::uint8_t type = section[at];
    const int pid = Pid(section, at + 1);
    const std::size_t end = std::min(at + 5 + Length(section, at + 3), section.size());
    at += 5;
    Form form{type};
    while (type == kPrivateData && at + 2 <= end) {
      const std::size_t next = std::min(at + 2 + section[at + 1], end);
      if (NamesCodec(section[at])) {
        form.insert(form.end(), section.begin() + static_cast<std::ptrdiff_t>(at),
                    section.begin() + static_cast<std::ptrdiff_t>(next));
      }
      at = next;
    }
    at = end;
    const auto [known, isNew] = forms_.try_emplace(pid, form);
    if (!isNew && known->second != form) {
      changed_.insert(pid);
    }
  }
}

}  // namespace host
