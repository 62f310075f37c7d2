// The tables of a transport stream: its packets (TransportPackets), the sections in them
// (SectionReader), the programs that these announce (ProgramTables), and whether an elementary
// stream changes its form (PmtMonitor).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace host {

// Cuts a transport stream into its packets, and finds them again after other data. Owned and called
// by one reader.
class TransportPackets {
 public:
  using Bytes = std::span<const std::uint8_t>;
  static constexpr std::size_t kSize = 188;  // bytes of a packet
  static constexpr std::uint8_t kSync = 0x47;

  static int PidOf(Bytes packet) { return (packet[1] & 0x1F) << 8 | packet[2]; }
  // Whether a decoder may begin with this packet.
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
  // Position of the first sync byte with another one a packet later (with or without 16 bytes of
  // error correction between them), as far as the bytes go.
  static std::size_t NextSync(Bytes bytes);

  std::array<std::uint8_t, kSize> packet_{};  // the packet being received
  std::size_t filled_ = 0;
};

// Assembles the sections of some PIDs: those that are whole, currently applicable and have the
// right CRC. The input may be anything. Owned and called by one reader.
//
//   transport packet   188 bytes: 0x47, flags and PID, flags and counter, [adaptation], payload
//   section            table id, flags and length; 16 bits table id extension; version and
//                      current/next indicator; section number, last section number; content;
//                      32 bits CRC
class SectionReader {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // The section from its table id to the end of its content, at least kHeader bytes. The sink may
  // call Follow and Unfollow.
  using Sink = std::function<void(int pid, Bytes section)>;

  static constexpr int kPatPid = 0;
  static constexpr std::uint8_t kPatTable = 0x00;
  static constexpr std::uint8_t kPmtTable = 0x02;
  static constexpr std::size_t kHeader = 8;
  static constexpr std::size_t kMaxPids = 256;

  // A length of 12 bits, a PID of 13 bits, and a number of 16 bits in the two bytes at `at`.
  static std::size_t LengthAt(Bytes bytes, std::size_t at) {
    return static_cast<std::size_t>((bytes[at] & 0x0F) << 8 | bytes[at + 1]);
  }
  static int PidAt(Bytes bytes, std::size_t at) { return (bytes[at] & 0x1F) << 8 | bytes[at + 1]; }
  static int NumberAt(Bytes bytes, std::size_t at) { return bytes[at] << 8 | bytes[at + 1]; }

  // Ignored beyond kMaxPids.
  void Follow(int pid);
  void Unfollow(int pid) { sections_.erase(pid); }
  void Packet(Bytes packet, const Sink& sink);

 private:
  using Section = std::vector<std::uint8_t>;

  static void TakeSections(int pid, Section& bytes, const Sink& sink);

  std::map<int, Section> sections_;  // being assembled, by PID
};

struct TransportProgram {
  int mapPid = 0;           // of its PMT
  std::vector<int> pids{};  // of its PCR and elementary streams; empty until its PMT has arrived
  std::string name{};       // of the service; empty until the SDT has arrived
};

// The programs of a transport stream. The input may be anything: what is damaged or not yet
// applicable is ignored. Owned and called by one reader.
//
//   PAT   which programs there are, and the PID of each one's PMT
//   PMT   the PIDs of a program's streams
//   SDT   the names of the services: those of this stream, by program number
class ProgramTables {
 public:
  using Bytes = std::span<const std::uint8_t>;
  static constexpr int kServicePid = 0x11;

  ProgramTables();

  // A packet of the stream (TransportPackets).
  void Packet(Bytes packet);

  // By program number; those of the latest complete PAT.
  const std::map<int, TransportProgram>& programs() const { return programs_; }
  int transportStream() const { return transportStream_; }  // transport_stream_id
  // Grows with every change.
  std::uint64_t version() const { return version_; }

 private:
  // A table in several sections, replaced by the next version.
  class Table {
   public:
    // True when the section is new and the table is complete.
    bool Add(Bytes section);
    const std::map<int, std::vector<std::uint8_t>>& sections() const { return sections_; }

   private:
    int version_ = -1;
    int last_ = -1;                                      // number of its last section
    std::map<int, std::vector<std::uint8_t>> sections_;  // by number
  };

  void OnSection(int pid, Bytes section);
  void ReadPrograms();
  void ReadMap(int pid, Bytes section);
  void ReadNames();

  SectionReader sections_;
  Table association_;
  Table services_;
  std::map<int, TransportProgram> programs_;
  std::map<int, std::string> names_;  // of services, by program number
  int transportStream_ = 0;
  std::uint64_t version_ = 0;
};

// The text of a DVB descriptor, whose first byte may name its character set, as UTF-8 without
// control characters.
std::string BroadcastText(std::span<const std::uint8_t> bytes);

// A service that changes its codec while it is sent may keep the PID of the stream and even the
// version of its tables. A demuxer then goes on parsing another codec's data as before: its packets
// are damaged, or there are none. The PMT shows the change at once.
//
//   PAT   sections of PID 0: the PID of each program's PMT
//   PMT   sections of that PID: type, PID and descriptors of each elementary stream
//
// The input may be anything: what is not a transport stream, is damaged (CRC) or not yet applicable
// is ignored. Owned and called by one reader.
class PmtMonitor {
 public:
  PmtMonitor();

  void Feed(std::span<const std::uint8_t> bytes);

  // Whether the stream of this PID was announced in one form and later in another.
  bool HasChanged(int pid) const { return changed_.contains(pid); }

 private:
  using Bytes = std::span<const std::uint8_t>;
  // What tells the codec of a stream: its type, and for private data its descriptors.
  using Form = std::vector<std::uint8_t>;

  void ProgramAssociation(Bytes section);
  void ProgramMap(Bytes section);

  TransportPackets packets_;
  SectionReader sections_;                    // of PID 0 and of the PMTs that are announced
  std::map<int, std::set<int>> pmtsOfPat_{};  // PIDs, by number of the PAT's section
  std::map<int, Form> forms_;                 // as first announced, by PID
  std::set<int> changed_;                     // PIDs
};

}  // namespace host
