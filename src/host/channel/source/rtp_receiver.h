// RtpReceiver: the datagrams of a transport stream's sender, with or without RTP, in its order.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace host {

// Takes the transport stream out of datagrams. Many senders are called the same, whether there is
// an RTP header (RFC 3550, RFC 2250) before the stream or not, and no single datagram says which:
// one that begins in the middle of a transport packet may look like RTP. So it is decided by
// source: RTP once two packets of one SSRC follow each other, raw once a datagram has the sync
// bytes of a transport stream where no RTP packet has them. What comes before that waits. Either
// decision is revised when several datagrams in a row contradict it.
//
//   packet   2 bits version 2, padding, extension, 4 bits CSRC count; marker, 7 bits payload type;
//            16 bits sequence number, 32 bits RTP timestamp, 32 bits SSRC; CSRC list;
//            [extension]; payload; [padding and its length]
//
// Raw datagrams come out as they are. RTP packets are sorted by their sequence number, duplicates
// are left out, and what is lost is passed over once its replacements have waited for
// kReorderTimeout. A sender that restarts, with another sequence number or another SSRC, is
// followed from its second packet on; one stray packet of another sender changes nothing. Packets
// that carry something else (control, error correction) are left out. Anything may come in. Owned
// and called by one reader.
class RtpReceiver {
 public:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::span<const std::uint8_t>;

  // What may be handed on now, often nothing; valid until the next call.
  Bytes Take(Bytes datagram, Clock::time_point now);

  // Whether RTP packets came, but none with a transport stream: audio or video by itself.
  bool carriesOther() const { return framing_ == Framing::kUnknown && others_ >= kMinOthers; }
  // RTP packets that were passed over.
  std::uint64_t lost() const { return lost_; }

 private:
  static constexpr std::chrono::milliseconds kReorderTimeout{50};
  static constexpr std::size_t kMaxReordered = 256;
  // Further ahead or behind than that, it is another sequence.
  static constexpr int kMaxSequenceJump = 1024;
  // So many old packets without a new one: not late, but a sequence that began a little earlier.
  static constexpr int kMaxLate = 32;
  // So many packets in sequence that carry something else: nothing more is to come.
  static constexpr int kMinOthers = 8;
  static constexpr std::size_t kMaxUndecided = 16;
  // So many datagrams in a row against the decision revise it.
  static constexpr int kMinToRevise = 3;

  enum class Framing { kUnknown, kRaw, kRtp };
  struct Packet {
    std::uint32_t ssrc = 0;
    std::uint16_t sequenceNumber = 0;
    Bytes payload;
    bool carriesTransportStream = false;
  };
  struct Datagram {
    std::optional<Packet> packet;  // none: no RTP packet
    bool isControl = false;
    bool isRaw = false;  // a transport stream that no RTP packet can carry like this
  };
  struct Undecided {
    std::vector<std::uint8_t> bytes;
    std::uint32_t ssrc = 0;
    std::uint16_t sequenceNumber = 0;
    bool carriesTransportStream = false;
  };
  struct Reordered {
    std::vector<std::uint8_t> payload;
    Clock::time_point since;
  };
  // The latest packet of what may be another sequence.
  struct Candidate {
    std::uint32_t ssrc = 0;
    std::uint16_t next = 0;
    std::vector<std::uint8_t> payload;
    int packets = 1;
  };

  static Datagram Parse(Bytes datagram);
  static std::optional<Packet> ParsePacket(Bytes datagram);
  static bool Follows(const Undecided& earlier, const Packet& packet);
  // What each of these lets out.
  Bytes TakeUndecided(Bytes bytes, const Datagram& datagram, Clock::time_point now);
  Bytes TakeRaw(Bytes bytes, const Datagram& datagram);
  Bytes TakeRtp(Bytes bytes, const Datagram& datagram, Clock::time_point now);
  Bytes StartRaw(Bytes bytes);
  Bytes StartRtp(std::size_t firstUndecided, Bytes bytes, Clock::time_point now);
  Bytes Start(const Packet& packet);
  Bytes InOrder(Bytes payload, Clock::time_point now);
  Bytes Hold(std::int64_t position, Bytes payload, Clock::time_point now);
  Bytes FromAnother(const Packet& packet);
  // Into out_; of what is held, what is due or has waited long enough.
  void Append(Bytes payload);
  void Release(Clock::time_point now);

  Framing framing_ = Framing::kUnknown;
  std::deque<Undecided> undecided_;
  int others_ = 0;
  int rawInARow_ = 0;  // while it is RTP
  std::uint32_t ssrc_ = 0;
  std::int64_t next_ = 0;  // position that is due: sequence numbers, counted on through wraps
  int lateInARow_ = 0;
  std::uint64_t lost_ = 0;
  std::optional<Candidate> candidate_;
  std::map<std::int64_t, Reordered> reordered_;  // came before their turn, by position
  std::vector<std::uint8_t> out_;
  std::vector<std::uint8_t> replayed_;
};

}  // namespace host
