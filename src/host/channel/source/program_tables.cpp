#include "host/channel/source/program_tables.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "host/ffmpeg/mask.h"
#include "platform/os/charset.h"

namespace host {
namespace {

constexpr std::uint8_t kServiceTable = 0x42;  // of this transport stream
constexpr std::uint8_t kServiceDescriptor = 0x48;
// Programs, streams of a program: no real multiplex comes near.
constexpr std::size_t kMaxPrograms = 200;
constexpr std::size_t kMaxStreams = 64;
constexpr std::size_t kMaxServices = 1000;

}  // namespace

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
          programs.size() >= kMaxPrograms) {  // 0: the network's table
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

}  // namespace host
