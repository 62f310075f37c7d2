// The packets of a transport stream, and the sections of its tables.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <vector>

namespace host {

// Cuts a transport stream into its packets, and finds them again behind what is none. Owned and
// called by one reader.
class TransportPackets {
 public:
  using Bytes = std::span<const std::uint8_t>;
  static constexpr std::size_t kSize = 188;  // bytes of a packet
  static constexpr std::uint8_t kSync = 0x47;

  static int PidOf(Bytes packet) { return (packet[1] & 0x1F) << 8 | packet[2]; }
  // Whether a decoder may begin with it.
  static bool IsRandomAccess(Bytes packet) {
    return (packet[3] & 0x20) != 0 && packet[4] > 0 && (packet[5] & 0x40) != 0;
  }

  // sink: gets each packet, valid until it returns.
  template <typename Sink>
  void Feed(Bytes bytes, const Sink& sink) {
    while (!bytes.empty()) {
      if (filled_ == 0) {
        bytes = bytes.subspan(NextSync(bytes));
        if (bytes.size() >= kSize) {
          sink(bytes.first(kSize));
          bytes = bytes.subspan(kSize);
          continue;
        }
      }
      const std::size_t count = std::min(bytes.size(), kSize - filled_);
      std::copy_n(bytes.begin(), count, packet_.begin() + static_cast<std::ptrdiff_t>(filled_));
      filled_ += count;
      bytes = bytes.subspan(count);
      if (filled_ == kSize) {
        filled_ = 0;
        sink(Bytes(packet_));
      }
    }
  }

 private:
  // Of the first sync byte that another one follows after a packet, with or without 16 bytes of
  // error correction between them, as far as the bytes go.
  static std::size_t NextSync(Bytes bytes);

  std::array<std::uint8_t, kSize> packet_{};  // the one that is coming in
  std::size_t filled_ = 0;
};

// Puts the sections of some PIDs together: whole ones that are in force and have the right CRC.
// Anything may come in. Owned and called by one reader.
//
//   transport packet   188 bytes: 0x47, flags and PID, flags and counter, [adaptation], payload
//   section            table, flags and length; 16 bits of what it is about, version and whether it
//                      is in force, its number and that of the last one; content; 32 bits CRC
class SectionReader {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // The section from its table to the end of its content, at least kHeader bytes. It may follow
  // further PIDs.
  using Sink = std::function<void(int pid, Bytes section)>;

  static constexpr int kPatPid = 0;
  static constexpr std::uint8_t kPatTable = 0x00;
  static constexpr std::uint8_t kPmtTable = 0x02;
  static constexpr std::size_t kHeader = 8;
  static constexpr std::size_t kMaxPids = 256;

  // 12 bits of a length, and 13 of a PID, that begin at that byte.
  static std::size_t LengthAt(Bytes bytes, std::size_t at) {
    return static_cast<std::size_t>((bytes[at] & 0x0F) << 8 | bytes[at + 1]);
  }
  static int PidAt(Bytes bytes, std::size_t at) { return (bytes[at] & 0x1F) << 8 | bytes[at + 1]; }
  static int NumberAt(Bytes bytes, std::size_t at) { return bytes[at] << 8 | bytes[at + 1]; }

  // Beyond kMaxPids nothing more is followed.
  void Follow(int pid);
  void Unfollow(int pid) { sections_.erase(pid); }
  void Packet(Bytes packet, const Sink& sink);

 private:
  using Section = std::vector<std::uint8_t>;

  static void TakeSections(int pid, Section& bytes, const Sink& sink);

  std::map<int, Section> sections_;  // being put together, by PID
};

}  // namespace host
