#include "host/channel/source/pmt_monitor.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace host {
namespace {

constexpr std::uint8_t kPrivateData = 6;

// The descriptors that name a codec: registration, and the broadcasters' for AC-3, E-AC-3, DTS, AAC
// and for what is no audio at all.
bool NamesCodec(std::uint8_t tag) {
  constexpr std::array<std::uint8_t, 8> kTags{0x05, 0x56, 0x59, 0x6A, 0x7A, 0x7B, 0x7C, 0x7F};
  return std::find(kTags.begin(), kTags.end(), tag) != kTags.end();
}

}  // namespace

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
  for (std::size_t at = SectionReader::kHeader; at + 4 <= section.size(); at += 4) {
    const bool isProgram = (section[at] | section[at + 1]) != 0;  // 0: the network's table
    if (isProgram) {
      sections_.Follow(SectionReader::PidAt(section, at + 2));
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
