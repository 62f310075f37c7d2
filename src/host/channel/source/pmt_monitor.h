// PmtMonitor: does an elementary stream of a transport stream change its form?
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <vector>

namespace host {

// A service that changes its codec while it is sent may keep the PID of the stream and even the
// version of its tables. A demuxer then continues cutting packets as before, from what is now
// another codec's data: some come out damaged, often none at all. The PMT says it at once.
//
//   transport packet   188 bytes: 0x47, flags and PID, flags and counter, [adaptation], payload
//   program
//     association      sections of PID 0: the PID of each program's map
//   PMT        sections of that PID: type, PID and descriptors of each elementary stream
//
// Anything may come in: what is not a transport stream, is damaged (CRC) or not yet in force says
// nothing. Owned and called by one reader.
class PmtMonitor {
 public:
  void Feed(std::span<const std::uint8_t> bytes);

  // Whether the stream of that PID was announced in one form and later in another.
  bool HasChanged(int pid) const { return changed_.contains(pid); }

 private:
  static constexpr std::size_t kPacketSize = 188;

  using Section = std::vector<std::uint8_t>;
  // What says which codec a stream has: its type, and for private data its descriptors.
  using Form = std::vector<std::uint8_t>;

  void Packet(std::span<const std::uint8_t> packet);
  void Payload(int pid, std::span<const std::uint8_t> payload, bool startsSection);
  // Takes whole sections from the front.
  void TakeSections(int pid, Section& bytes);
  void ProgramAssociation(std::span<const std::uint8_t> section);
  void ProgramMap(std::span<const std::uint8_t> section);

  std::array<std::uint8_t, kPacketSize> packet_{};  // the one that is coming in
  std::size_t filled_ = 0;
  std::map<int, Section> sections_;  // being put together, by PID: of PID 0 and of PMTs
  std::map<int, Form> forms_;        // as first announced, by PID
  std::set<int> changed_;            // PIDs
};

}  // namespace host
