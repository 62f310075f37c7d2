// PmtMonitor: does an elementary stream of a transport stream change its form?
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "host/channel/source/psi_sections.h"

namespace host {

// A service that changes its codec while it is sent may keep the PID of the stream and even the
// version of its tables. A demuxer then continues cutting packets as before, from what is now
// another codec's data: some come out damaged, often none at all. The PMT says it at once.
//
//   PAT   sections of PID 0: the PID of each program's PMT
//   PMT   sections of that PID: type, PID and descriptors of each elementary stream
//
// Anything may come in: what is not a transport stream, is damaged (CRC) or not yet in force says
// nothing. Owned and called by one reader.
class PmtMonitor {
 public:
  PmtMonitor();

  void Feed(std::span<const std::uint8_t> bytes);

  // Whether the stream of that PID was announced in one form and later in another.
  bool HasChanged(int pid) const { return changed_.contains(pid); }

 private:
  using Bytes = std::span<const std::uint8_t>;
  // What says which codec a stream has: its type, and for private data its descriptors.
  using Form = std::vector<std::uint8_t>;

  void ProgramAssociation(Bytes section);
  void ProgramMap(Bytes section);

  TransportPackets packets_;
  SectionReader sections_;     // of PID 0 and of PMTs
  std::map<int, Form> forms_;  // as first announced, by PID
  std::set<int> changed_;      // PIDs
};

}  // namespace host
