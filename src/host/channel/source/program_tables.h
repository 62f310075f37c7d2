// ProgramTables: the programs of a transport stream, as its tables announce them at present.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "host/channel/source/psi_sections.h"

namespace host {

struct TransportProgram {
  int mapPid = 0;           // of its PMT
  std::vector<int> pids{};  // of its PCR and of its elementary streams; empty until its PMT came
  std::string name{};       // of the service; empty until the SDT says it
};

// Anything may come in: what is damaged or not in force says nothing. Owned and called by one
// reader.
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

  // By program number. Only those of a PAT that came whole.
  const std::map<int, TransportProgram>& programs() const { return programs_; }
  int transportStream() const { return transportStream_; }  // its number
  // Grows with everything that changes here.
  std::uint64_t version() const { return version_; }

 private:
  // A table in several sections, until it is replaced by another version.
  class Table {
   public:
    // True when it is whole, and says something else than before.
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

// The text of a broadcaster's descriptor, whose first byte may name its character set, as UTF-8
// without control characters.
std::string BroadcastText(std::span<const std::uint8_t> bytes);

}  // namespace host
