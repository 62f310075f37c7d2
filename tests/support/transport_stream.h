// Sections of a transport stream's tables, in packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

extern "C" {
#include <libavutil/crc.h>
}

namespace transport {

using Bytes = std::vector<std::uint8_t>;

inline std::uint8_t Low(std::size_t value) {
  return static_cast<std::uint8_t>(value & 0xFF);
}

// id: of what it is about; version: 0 to 31.
inline Bytes Section(std::uint8_t table, const Bytes& body, int id = 1, int version = 0) {
  const std::size_t length = 5 + body.size() + 4;
  Bytes section{table,
                Low(0xB0 | length >> 8),
                Low(length),
                Low(static_cast<unsigned>(id) >> 8),
                Low(static_cast<unsigned>(id)),
                Low(0xC1U | static_cast<unsigned>(version) << 1),
                0,
                0};
  section.insert(section.end(), body.begin(), body.end());
  const std::uint32_t crc =
      av_crc(av_crc_get_table(AV_CRC_32_IEEE), ~0U, section.data(), section.size());
  for (unsigned shift = 0; shift < 32; shift += 8) {
    section.push_back(Low(crc >> shift));
  }
  return section;
}

// The section in as many transport packets as it needs.
inline Bytes Packets(int pid, const Bytes& section) {
  Bytes payload{0};
  payload.insert(payload.end(), section.begin(), section.end());
  Bytes packets;
  for (std::size_t at = 0; at < payload.size(); at += 184) {
    packets.insert(packets.end(),
                   {0x47, Low((at == 0 ? 0x40U : 0U) | static_cast<unsigned>(pid) >> 8),
                    Low(static_cast<unsigned>(pid)), 0x10});
    for (std::size_t i = at; i < at + 184; ++i) {
      packets.push_back(i < payload.size() ? payload[i] : 0xFF);
    }
  }
  return packets;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

}  // namespace transport
