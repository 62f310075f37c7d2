#include "host/channel/source/program_filter.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

extern "C" {
#include <libavutil/crc.h>
}

#include "host/ffmpeg/mask.h"

namespace host {
namespace {

// More do not fit on a slate.
constexpr std::size_t kMaxNamed = 12;
constexpr std::size_t kMaxName = 48;  // bytes
constexpr std::size_t kStuffingPid = 0x1FFF;

std::string Named(int number, const std::string& name) {
  const std::string_view shown = ffmpeg::CutToBytes(name, kMaxName);
  return std::to_string(number) + (shown.empty() ? "" : " (" + std::string(shown) + ")");
}

std::string List(const std::map<int, std::string>& names) {
  std::string list;
  std::size_t count = 0;
  for (const auto& [number, name] : names) {
    if (++count > kMaxNamed) {
      return list + " and " + std::to_string(names.size() - kMaxNamed) + " more";
    }
    list += (list.empty() ? "" : ", ") + Named(number, name);
  }
  return list.empty() ? "none" : list;
}

std::map<int, std::string> NamesOf(const ProgramTables& tables) {
  std::map<int, std::string> names;
  for (const auto& [number, program] : tables.programs()) {
    names[number] = program.name;
  }
  return names;
}

}  // namespace

std::string NoProgram(const config::ProgramChoice& wanted,
                      const std::map<int, std::string>& names) {
  return "it has no program " +
         (wanted.number != 0 ? std::to_string(wanted.number) : "\"" + wanted.name + "\"") +
         "; it has " + List(names);
}

void ProgramFilter::Packet(Bytes packet, const ProgramTables& tables, Clock::time_point now,
                           std::vector<std::uint8_t>& out) {
  if (missing_) {
    return;
  }
  begun_ = begun_.value_or(now);
  if (tables.version() != version_) {
    version_ = tables.version();
    Follow(tables);
  }
  if (number_ == 0) {
    if (now - *begun_ >= kLimit) {
      missing_ = NoProgram(wanted_, NamesOf(tables));
    }
    return;
  }
  const int pid = TransportPackets::PidOf(packet);
  if (pid == SectionReader::kPatPid) {
    const bool startsSection = (packet[1] & 0x40) != 0;
    if (startsSection) {
      AppendAssociation(tables, out);
    }
  } else if (pids_[static_cast<std::size_t>(pid)]) {
    out.insert(out.end(), packet.begin(), packet.end());
  }
}

void ProgramFilter::Follow(const ProgramTables& tables) {
  if (number_ == 0) {
    Find(tables);
  }
  pids_.reset();
  const auto program = tables.programs().find(number_);
  if (program != tables.programs().end()) {
    mapPid_ = program->second.mapPid;
    name_ = program->second.name;
    pids_.set(ProgramTables::kServicePid);
    pids_.set(static_cast<std::size_t>(mapPid_));
    for (const int pid : program->second.pids) {
      pids_.set(static_cast<std::size_t>(pid));
    }
    pids_.reset(kStuffingPid);  // the PCR PID of a program without a PCR
  } else if (number_ != 0) {
    missing_ =
        "its program " + Named(number_, name_) + " has ended; it has " + List(NamesOf(tables));
  }
}

void ProgramFilter::Find(const ProgramTables& tables) {
  for (const auto& [number, program] : tables.programs()) {
    if (wanted_.number != 0 ? number == wanted_.number : program.name == wanted_.name) {
      number_ = number;
      return;
    }
  }
}

// One packet: a PAT of one program, and stuffing.
void ProgramFilter::AppendAssociation(const ProgramTables& tables, std::vector<std::uint8_t>& out) {
  constexpr std::size_t kSection = 5;   // its start: after header and pointer
  constexpr std::size_t kContent = 12;  // its bytes before the CRC
  const auto high = [](int value) { return static_cast<std::uint8_t>(value >> 8 & 0xFF); };
  const auto low = [](int value) { return static_cast<std::uint8_t>(value & 0xFF); };
  const int id = tables.transportStream();
  const auto version = static_cast<std::uint8_t>(0xC1 | (version_ & 0x1F) << 1);
  std::array<std::uint8_t, TransportPackets::kSize> packet{};
  packet.fill(0xFF);
  const std::array<std::uint8_t, kSection + kContent> content{
      TransportPackets::kSync,
      0x40,
      0x00,
      static_cast<std::uint8_t>(0x10 | (counter_ & 0x0F)),
      0,
      0x00,
      0xB0,
      13,
      high(id),
      low(id),
      version,
      0,
      0,
      high(number_),
      low(number_),
      static_cast<std::uint8_t>(0xE0 | high(mapPid_)),
      low(mapPid_)};
  std::copy(content.begin(), content.end(), packet.begin());
  ++counter_;
  // FFmpeg's CRC has its bytes in the order in which they are sent.
  const std::uint32_t crc =
      av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0U, packet.data() + kSection, kContent);
  for (std::size_t i = 0; i < sizeof crc; ++i) {
    packet[kSection + kContent + i] = static_cast<std::uint8_t>(crc >> (8 * i) & 0xFF);
  }
  out.insert(out.end(), packet.begin(), packet.end());
}

}  // namespace host
