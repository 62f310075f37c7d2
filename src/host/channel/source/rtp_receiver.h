// RtpReceiver: the datagrams of an RTP sender, back in its order.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace host {

// Takes the transport stream out of RTP packets (RFC 3550, RFC 2250): sorts what the network has
// exchanged, leaves out what came twice, and passes over what is lost once its successors have
// waited for kPatience. A sender that began anew, with another number or another identity, is
// followed from its second packet on; one stray packet of somebody else changes nothing.
//
//   packet   2 bits version 2, padding, extension, 4 bits count of sources; marker, 7 bits type;
//            16 bits number, 32 bits time, 32 bits identity of the sender; its sources;
//            [extension]; payload; [padding and its length]
//
// A datagram that is no RTP packet comes out as it is: many call a transport stream in datagrams
// the same, whether there is a header before it or not. Packets that carry something else (control,
// error correction) are left out. Anything may come in. Owned and called by one reader.
class RtpReceiver {
 public:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::span<const std::uint8_t>;

  // What may be handed on now, often nothing; valid until the next call.
  Bytes Take(Bytes datagram, Clock::time_point now);

  // Whether RTP packets came, but none with a transport stream: sound or video by itself.
  bool carriesOther() const { return others_ >= kMostOthers && !next_.has_value(); }

 private:
  static constexpr std::chrono::milliseconds kPatience{50};
  static constexpr std::size_t kMostHeld = 256;
  // Further ahead or behind than that, it is another sequence.
  static constexpr int kReach = 1024;
  // So many old packets without a new one: not late, but a sequence that began a little earlier.
  static constexpr int kMostLate = 32;
  // So many packets that carry something else, and none that does not: nothing more is to come.
  static constexpr int kMostOthers = 8;

  struct Packet {
    std::uint32_t sender = 0;
    std::uint16_t number = 0;
    Bytes payload;
  };
  struct Held {
    std::vector<std::uint8_t> payload;
    Clock::time_point since;
  };
  // The first packet of what may be another sequence.
  struct Candidate {
    std::uint32_t sender = 0;
    std::uint16_t next = 0;
    std::vector<std::uint8_t> payload;
  };

  static std::optional<Packet> Parse(Bytes datagram);
  // What each of these lets out.
  Bytes Start(const Packet& packet);
  Bytes InOrder(Bytes payload, Clock::time_point now);
  Bytes Hold(std::int64_t position, Bytes payload, Clock::time_point now);
  Bytes FromAnother(const Packet& packet);
  // Into out_; of what is held, what is due or has waited long enough.
  void Append(Bytes payload);
  void Release(Clock::time_point now);

  int others_ = 0;
  std::uint32_t sender_ = 0;
  std::optional<std::int64_t> next_;  // position that is due: numbers, counted on through wraps
  int lateInARow_ = 0;
  std::optional<Candidate> candidate_;
  std::map<std::int64_t, Held> held_;  // came before their turn, by position
  std::vector<std::uint8_t> out_;
};

}  // namespace host
