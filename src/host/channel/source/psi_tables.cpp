#include "host/channel/source/psi_tables.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

extern "C" {
#include <libavutil/crc.h>
}

#include "host/ffmpeg/mask.h"
#include "platform/os/charset.h"

namespace host {

namespace {

constexpr std::size_t kLengthEnd = 3;  // table id, flags and length
constexpr std::size_t kCrc = 4;
constexpr std::size_t kParity = 16;  // of a Reed-Solomon code, after a packet

constexpr std::uint8_t kServiceTable = 0x42;  // of this transport stream
constexpr std::uint8_t kServiceDescriptor = 0x48;
// No real multiplex comes near these limits.
constexpr std::size_t kMaxPrograms = 200;
constexpr std::size_t kMaxStreams = 64;
constexpr std::size_t kMaxServices = 1000;

constexpr std::uint8_t kPrivateData = 6;

// The descriptors that name a codec: registration, those of DVB for AC-3, E-AC-3, DTS and AAC, and
// those of streams that are not audio.
bool NamesCodec(std::uint8_t tag) {
  constexpr std::array<std::uint8_t, 8> kTags{0x05, 0x56, 0x59, 0x6A, 0x7A, 0x7B, 0x7C, 0x7F};
  return std::find(kTags.begin(), kTags.end(), tag) != kTags.end();
}

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
  // If a packet was lost in between, the CRC is wrong.
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

std::string BroadcastText(std::span<const std::uint8_t> bytes) {
  static constexpr std::array<const char*, 0x16> kCharsets = {"ISO6937",
                                                              "ISO-8859-5",
                                                              "ISO-8859-6",
                                                              "ISO-8859-7",
                                                              "ISO-8859-8",
                                                              "ISO-8859-9",
                                                              "ISO-8859-10",
                                                              "ISO-8859-11",
                                                              "",
                                                              "ISO-8859-13",
                                                              "ISO-8859-14",
                                                              "ISO-8859-15",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "UCS-2BE",
                                                              "KSC_5601",
                                                              "GB2312",
                                                              "UCS-2BE",
                                                              "UTF-8"};
  constexpr std::uint8_t kNumbered = 0x10;  // two bytes with the part of ISO 8859 follow
  std::string charset = kCharsets[0];
  if (!bytes.empty() && bytes[0] == kNumbered && bytes.size() >= 3) {
    charset = "ISO-8859-" + std::to_string(SectionReader::NumberAt(bytes, 1));
    bytes = bytes.subspan(3);
  } else if (!bytes.empty() && bytes[0] < kCharsets.size()) {
    charset = kCharsets[bytes[0]];
    bytes = bytes.subspan(1);
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto converted = charset.empty() ? std::nullopt : os::ToUtf8(text, charset);
  return ffmpeg::Printable(converted.value_or(std::string(text)));
}

bool ProgramTables::Table::Add(Bytes section) {
  if (section[5] != version_ || section[7] != last_) {
    sections_.clear();
    version_ = section[5];
    last_ = section[7];
  }
  if (section[6] > last_) {
    return false;
  }
  std::vector<std::uint8_t>& known = sections_[section[6]];
  if (std::equal(section.begin(), section.end(), known.begin(), known.end())) {
    return false;
  }
  known.assign(section.begin(), section.end());
  return sections_.size() == static_cast<std::size_t>(last_) + 1;
}

ProgramTables::ProgramTables() {
  sections_.Follow(SectionReader::kPatPid);
  sections_.Follow(kServicePid);
}

void ProgramTables::Packet(Bytes packet) {
  sections_.Packet(packet, [this](int pid, Bytes section) { OnSection(pid, section); });
}

void ProgramTables::OnSection(int pid, Bytes section) {
  if (pid == SectionReader::kPatPid) {
    if (section[0] == SectionReader::kPatTable && association_.Add(section)) {
      ReadPrograms();
    }
  } else if (pid == kServicePid) {
    if (section[0] == kServiceTable && services_.Add(section)) {
      ReadNames();
    }
  } else if (section[0] == SectionReader::kPmtTable) {
    ReadMap(pid, section);
  }
}

void ProgramTables::ReadPrograms() {
  std::map<int, TransportProgram> programs;
  for (const auto& [ignored, section] : association_.sections()) {
    transportStream_ = SectionReader::NumberAt(section, 3);
    for (std::size_t at = SectionReader::kHeader; at + 4 <= section.size(); at += 4) {
      const int number = SectionReader::NumberAt(section, at);
      const int mapPid = SectionReader::PidAt(section, at + 2);
      if (number == 0 || mapPid == SectionReader::kPatPid || mapPid == kServicePid ||
          programs.size() >= kMaxPrograms) {  // 0: the NIT
        continue;
      }
      const auto known = programs_.find(number);
      programs[number] = known != programs_.end() && known->second.mapPid == mapPid
                             ? std::move(known->second)
                             : TransportProgram{mapPid};
      const auto name = names_.find(number);
      programs[number].name = name != names_.end() ? name->second : "";
    }
  }
  for (const auto& [ignored, program] : programs_) {
    sections_.Unfollow(program.mapPid);
  }
  programs_ = std::move(programs);
  for (const auto& [ignored, program] : programs_) {
    sections_.Follow(program.mapPid);
  }
  ++version_;
}

void ProgramTables::ReadMap(int pid, Bytes section) {
  const auto program = programs_.find(SectionReader::NumberAt(section, 3));
  std::size_t at = SectionReader::kHeader + 4;
  if (program == programs_.end() || program->second.mapPid != pid || at > section.size()) {
    return;
  }
  std::vector<int> pids{SectionReader::PidAt(section, SectionReader::kHeader)};
  at += SectionReader::LengthAt(section, at - 2);  // descriptors of the program
  for (; at + 5 <= section.size() && pids.size() <= kMaxStreams;
       at += 5 + SectionReader::LengthAt(section, at + 3)) {
    pids.push_back(SectionReader::PidAt(section, at + 1));
  }
  if (pids != program->second.pids) {
    program->second.pids = std::move(pids);
    ++version_;
  }
}

void ProgramTables::ReadNames() {
  names_.clear();
  for (const auto& [ignored, section] : services_.sections()) {
    for (std::size_t at = SectionReader::kHeader + 3; at + 5 <= section.size();) {
      const int number = SectionReader::NumberAt(section, at);
      const std::size_t end =
          std::min(at + 5 + SectionReader::LengthAt(section, at + 3), section.size());
      for (at += 5; at + 2 <= end;) {
        const Bytes descriptor =
            Bytes(section).subspan(at + 2, std::min<std::size_t>(section[at + 1], end - at - 2));
        // Type of the service, length and name of the provider, length and name of the service.
        const std::size_t provider = descriptor.size() > 1 ? descriptor[1] : 0;
        if (section[at] == kServiceDescriptor && descriptor.size() > provider + 2 &&
            names_.size() < kMaxServices) {
          const Bytes name = descriptor.subspan(provider + 3);
          names_[number] = BroadcastText(
              name.first(std::min<std::size_t>(descriptor[provider + 2], name.size())));
        }
        at += 2 + descriptor.size();
      }
      at = end;
    }
  }
  for (auto& [number, program] : programs_) {
    const auto name = names_.find(number);
    program.name = name != names_.end() ? name->second : program.name;
  }
  ++version_;
}

PmtMonitor::PmtMonitor() {
  sections_.Follow(SectionReader::kPatPid);
}

void PmtMonitor::Feed(Bytes bytes) {
  packets_.Feed(bytes, [this](Bytes packet) {
    sections_.Packet(packet, [this](int pid, Bytes section) {
      if (pid == SectionReader::kPatPid && section[0] == SectionReader::kPatTable) {
        ProgramAssociation(section);
      } else if (pid != SectionReader::kPatPid && section[0] == SectionReader::kPmtTable) {
        ProgramMap(section);
      }
    });
  });
}

void PmtMonitor::ProgramAssociation(Bytes section) {
  std::set<int> pids;
  for (std::size_t at = SectionReader::kHeader; at + 4 <= section.size(); at += 4) {
    const bool isProgram = (section[at] | section[at + 1]) != 0;  // 0: the NIT
    const int pid = SectionReader::PidAt(section, at + 2);
    if (isProgram && pid != SectionReader::kPatPid) {
      pids.insert(pid);
    }
  }
  const int number = section[6];
  const int last = section[7];
  const std::map<int, std::set<int>> former = pmtsOfPat_;
  pmtsOfPat_[number] = std::move(pids);
  pmtsOfPat_.erase(pmtsOfPat_.upper_bound(last), pmtsOfPat_.end());
  if (pmtsOfPat_ == former) {
    return;
  }
  // Those that are announced no more would fill the reader within months.
  for (const auto& [ofSection, gone] : former) {
    for (const int pid : gone) {
      sections_.Unfollow(pid);
    }
  }
  for (const auto& [ofSection, announced] : pmtsOfPat_) {
    for (const int pid : announced) {
      sections_.Follow(pid);
    }
  }
}

void PmtMonitor::ProgramMap(Bytes section) {
  std::size_t at = SectionReader::kHeader + 4;
  if (at > section.size()) {
    return;
  }
  at += SectionReader::LengthAt(section, at - 2);  // descriptors of the program
  while (at + 5 <= section.size()) {
    const std::uint8_t type = section[at];
    const int pid = SectionReader::PidAt(section, at + 1);
    const std::size_t end =
        std::min(at + 5 + SectionReader::LengthAt(section, at + 3), section.size());
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
