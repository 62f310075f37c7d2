// RtpReceiver: a transport stream out of datagrams, with or without RTP, in the sender's order.
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

// Takes the transport stream out of datagrams. The address does not tell whether there is an RTP
// header (RFC 3550, RFC 2250) before the stream, and nor does a single datagram: one that begins in
// the middle of a transport packet may look like RTP. So the framing is decided once for a source:
// RTP when two packets of one SSRC follow each other, raw when a datagram has the sync bytes of a
// transport stream where no RTP packet has them. Datagrams before that wait. Either decision is
// revised when several consecutive datagrams contradict it.
//
//   packet   2 bits version 2, padding, extension, 4 bits CSRC count; marker, 7 bits payload type;
//            16 bits sequence number, 32 bits RTP timestamp, 32 bits SSRC; CSRC list;
//            [extension]; payload; [padding and its length]
//
// Raw datagrams pass unchanged. RTP packets are sorted by sequence number, duplicates are dropped,
// and a lost packet is skipped once its successors have waited for kReorderTimeout. A sender that
// restarts, with another sequence number or another SSRC, is followed from its second packet on; a
// stray packet of another sender changes nothing. Packets that carry something else (control, error
// correction) are dropped. The input may be anything. Owned and called by one reader.
class RtpReceiver {
 public:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::span<const std::uint8_t>;

  // The bytes that are ready, often none; valid until the next call.
  Bytes Take(Bytes datagram, Clock::time_point now);

  // Whether RTP packets arrive, but none with a transport stream: audio or video by itself.
  bool carriesOther() const { return framing_ == Framing::kUnknown && others_ >= kMinOthers; }
  // RTP packets that were skipped as lost.
  std::uint64_t lost() const { return lost_; }

 private:
  static constexpr std::chrono::milliseconds kReorderTimeout{50};
  static constexpr std::size_t kMaxReordered = 256;
  // A packet further ahead or behind belongs to another sequence.
  static constexpr int kMaxSequenceJump = 1024;
  // More consecutive old packets are not late, but a sequence that began at a lower number.
  static constexpr int kMaxLate = 32;
  // After this many packets that carry something else, no transport stream is expected.
  static constexpr int kMinOthers = 8;
  static constexpr std::size_t kMaxUndecided = 16;
  // This many consecutive datagrams revise the decision.
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
    bool isRaw = false;  // a transport stream with sync bytes where no RTP packet has them
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
  // The latest packet of a possible other sequence.
  struct Candidate {
    std::uint32_t ssrc = 0;
    std::uint16_t next = 0;
    std::vector<std::uint8_t> payload;
    int packets = 1;
  };

  static Datagram Parse(Bytes datagram);
  static std::optional<Packet> ParsePacket(Bytes datagram);
  static bool Follows(const Undecided& earlier, const Packet& packet);
  // Each returns the bytes that are ready.
  Bytes TakeUndecided(Bytes bytes, const Datagram& datagram, Clock::time_point now);
  Bytes TakeRaw(Bytes bytes, const Datagram& datagram);
  Bytes TakeRtp(Bytes bytes, const Datagram& datagram, Clock::time_point now);
  Bytes StartRaw(Bytes bytes);
  Bytes StartRtp(std::size_t firstUndecided, Bytes bytes, Clock::time_point now);
  Bytes Start(const Packet& packet);
  Bytes InOrder(Bytes payload, Clock::time_point now);
  Bytes Hold(std::int64_t position, Bytes payload, Clock::time_point now);
  Bytes FromAnother(const Packet& packet);
  // Append to out_; Release: the reordered packets that are due or have waited long enough.
  void Append(Bytes payload);
  void Release(Clock::time_point now);

  Framing framing_ = Framing::kUnknown;
  std::deque<Undecided> undecided_;
  int others_ = 0;
  int rawInARow_ = 0;  // while it is RTP
  std::uint32_t ssrc_ = 0;
  std::int64_t next_ = 0;  // position that is due: sequence number with wraps undone
  int lateInARow_ = 0;
  std::uint64_t lost_ = 0;
  std::optional<Candidate> candidate_;
  std::map<std::int64_t, Reordered> reordered_;  // arrived before they were due, by position
  std::vector<std::uint8_t> out_;
  std::vector<std::uint8_t> replayed_;
};

}  // namespace host
