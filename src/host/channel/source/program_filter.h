// ProgramFilter: one program of a transport stream.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/channel/source/psi_tables.h"
#include "host/config/wall.h"

namespace host {

// "it has no program 7; it has 1 (One), 2 (Two)"; names: of the services, by program number.
std::string NoProgram(const config::ProgramChoice& wanted, const std::map<int, std::string>& names);

// Gives a demuxer the packets of one program only, with a PAT that lists no other, so that changes
// of the other programs do not affect it. A service that was chosen by name stays chosen by its
// program number when it is renamed. The program is missing when the PAT no longer lists it, or
// when it is not found within kLimit.
//
// Owned and called by one reader, which feeds the tables first.
class ProgramFilter {
 public:
  using Bytes = std::span<const std::uint8_t>;
  using Clock = std::chrono::steady_clock;

  // Service names are repeated every two seconds at least.
  static constexpr std::chrono::milliseconds kLimit{3000};

  explicit ProgramFilter(config::ProgramChoice wanted) : wanted_(std::move(wanted)) {}

  // Appends what the demuxer gets of the packet.
  void Packet(Bytes packet, const ProgramTables& tables, Clock::time_point now,
              std::vector<std::uint8_t>& out);
  // Why there are no more packets, for a slate; none while there may be.
  const std::optional<std::string>& missing() const { return missing_; }
  // Of the program; 0 until it is found.
  int number() const { return number_; }

 private:
  void Follow(const ProgramTables& tables);
  void Find(const ProgramTables& tables);
  void AppendAssociation(const ProgramTables& tables, std::vector<std::uint8_t>& out);

  const config::ProgramChoice wanted_;
  std::optional<Clock::time_point> begun_;
  std::uint64_t version_ = 0;  // of the tables
  int number_ = 0;             // of the program; 0: not found yet
  std::string name_;           // of its service, as far as it is known
  int mapPid_ = 0;
  std::bitset<8192> pids_;    // of the program, except that of the PAT
  std::uint8_t counter_ = 0;  // continuity counter of the generated PAT
  std::optional<std::string> missing_;
};

// The same for a stream in pieces, with tables of its own: for a single reader.
class ProgramReader {
 public:
  explicit ProgramReader(config::ProgramChoice wanted) : filter_(std::move(wanted)) {}

  // What the demuxer reads in place of the bytes; valid until the next call.
  ProgramFilter::Bytes Take(ProgramFilter::Bytes bytes) {
    out_.clear();
    const auto now = ProgramFilter::Clock::now();
    packets_.Feed(bytes, [&](ProgramFilter::Bytes packet) {
      tables_.Packet(packet);
      filter_.Packet(packet, tables_, now, out_);
    });
    return out_;
  }
  const std::optional<std::string>& missing() const { return filter_.missing(); }
  int number() const { return filter_.number(); }

 private:
  TransportPackets packets_;
  ProgramTables tables_;
  ProgramFilter filter_;
  std::vector<std::uint8_t> out_;
};

}  // namespace host
