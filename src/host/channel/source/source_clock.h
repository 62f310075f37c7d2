// Turns the timestamps of a source into one clock that starts near 0 and never jumps.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/units.h"

namespace host {

// A source's timestamps start anywhere, wrap (26.5 hours in MPEG-TS), jump when the sender
// restarts or splices, and begin again when a file is repeated. Each kind of jump needs another
// answer:
//  - a wrap is undone exactly, with the stream's known wrap period, so nothing is seen of it;
//  - a jump (backwards by more than kBackLimit, or forwards by more than the forward limit) gets a
//    new offset with which the stream continues where it was; a shorter step forwards is a real
//    gap;
//  - the other streams of the source jump a few packets earlier or later: each keeps its own offset
//    until its own timestamps jump, and then takes that of another stream if it lies beside that
//    one with it. Audio and video thus stay together, and no packet from before the jump is thrown
//    to the other side;
//  - a stream that was away (a sender without audio for a while) is expected where the others have
//    gone meanwhile, not where it stopped; one that does not come back is no measure for them;
//  - damaged timestamps say anything, also of all the packets that a container gives one timestamp.
//  A lone
//    one of a source that may jump moves nothing, its packet follows the one before it; a jump
//    counts from the second packet on that confirms it. What jumps by itself continues where it
//    was, and comes back beside the other streams as soon as its timestamps do; a gap is one when
//    all have it, or when the others went on meanwhile.
//
// Owned and called by one reader on its thread; no lock.
class SourceClock {
 public:
  static constexpr Time kBackLimit = kSecond / 2;
  // A frame is shown at most so long after it is decoded: as many frames as any codec reorders,
  // or that time while it is not known how long they are.
  static constexpr Time kMaxAhead = 5 * kSecond;
  static constexpr Time kMaxFramesAhead = 16;
  // Damaged timestamps one after the other, each different from the others. After more they are
  // accepted.
  static constexpr int kMaxDoubts = 3;
  // How far the streams of one source may be apart when they jump together.
  static constexpr Time kAdoptionLimit = 2 * kSecond;
  // A stream that is behind the others by more was away, and one that is behind by the second has
  // ended as far as the others can know.
  static constexpr Time kAway = kSecond;
  static constexpr Time kGone = 4 * kSecond;

  struct Timestamps {
    std::optional<Time> dts;
    std::optional<Time> pts;
    Time duration = 0;  // 0 when not known
  };

  struct Mapped {
    Time dts = 0;
    std::optional<Time> pts;
    bool discontinuity = false;  // the first packet of its stream that a jump has moved
  };

  // forwardLimit: the longest step forwards that still counts as a gap; none for a source whose
  // timestamps do not jump, of which every step forwards is a gap. origin: the source time that
  // becomes 0; by default that of the first packet.
  explicit SourceClock(std::optional<Time> forwardLimit, std::optional<Time> origin = {});

  // Adds a stream and returns its number, counted from 0. wrapPeriod 0: the timestamps never wrap.
  std::size_t AddStream(Time wrapPeriod);
  // The service continues with another codec or interval, in the place of that stream.
  void ReplaceStream(std::size_t stream, Time wrapPeriod);

  // The timestamps of the next packet of a stream, on the continuous clock. A packet without any
  // timestamp follows the one before it.
  Mapped Map(std::size_t stream, Timestamps timestamps);

  // The source begins again from its origin: what follows is placed after everything given so far.
  void Restart();

  // Clock time minus source time, of the latest packet of a stream.
  Time offset(std::size_t stream) const { return streams_.at(stream).offset.value; }
  // End of the latest packet so far.
  Time end() const { return end_; }

 private:
  // Clock time minus source time; a jump makes the next one.
  struct Offset {
    Time value = 0;
    std::uint64_t number = 0;
    std::optional<Time> beforeGap{};  // the value before what may be a gap
    Time since = 0;                   // clock time of the first packet with it
  };

  struct Stream {
    Time wrapPeriod = 0;
    Offset offset;
    bool started = false;
    Time lastRaw = 0;        // latest source time, wraps undone
    Time expected = 0;       // clock time at which the next packet would follow without a gap
    Time lastStep = 0;       // distance of the latest two packets
    Time claimed = 0;        // duration that the latest one is said to have
    Time ahead = 0;          // of its companion, on the clock, when a packet of that came before
    std::uint64_t turn = 0;  // counts the packets of all streams
    std::optional<Time> suspect{};  // source time of the latest packet, which was not believed
    int doubts = 0;                 // packets in a row of that kind
  };

  Time Unwrap(const Stream& stream, Time raw) const;
  // What to think of a packet's timestamp: that it follows the one before it, that it continues
  // from one that was suspect, or that the next one is to confirm it first.
  enum class Verdict { kFollows, kConfirmed, kSuspect };
  Verdict Judge(const Stream& stream, Time raw) const;
  // The other stream of which a packet came last; null without one that is still there.
  const Stream* Companion(const Stream& stream) const;
  // Clock time at which the stream's next packet belongs.
  Time Due(const Stream& stream) const;
  // Takes the offset of its companion if it lies beside that with it; false if not.
  bool JoinCompanion(Stream& stream, Time raw);
  // Gives the stream another offset when its timestamps jumped; true when they did.
  bool FollowJump(Stream& stream, Time raw);
  // A slow stream shows by its interval that the gap that its companion seemed to have is one of
  // the source.
  void ConfirmGap(const Stream& stream, Time raw);
  // The gap that one stream seemed to have is one of the source.
  void BelieveGap(const Offset& gap);
  void AddOffset(Time value, std::optional<Time> beforeGap = {}, Time since = 0);

  const std::optional<Time> forwardLimit_;
  std::optional<Time> origin_;
  Offset newest_;
  std::vector<Stream> streams_;
  Time end_ = 0;
  std::uint64_t turn_ = 0;
  bool restarting_ = false;
};

// Within a track times only grow, but where the source's timestamps jumped: what would begin before
// the item before it begins just behind that. What has no time of its own follows the one before
// it. Times on the source's continuous clock; one reader, no lock.
class ItemTimes {
 public:
  struct Span {
    Time start = 0;
    Time duration = 0;
    bool discontinuity = false;  // the first since the source's timestamps jumped
  };

  // A decoded frame; duration: of a frame of the source; jumps: how often the timestamps had jumped
  // before its packet.
  Span Frame(std::optional<Time> given, Time duration, std::int64_t jumps) {
    const bool jumped = jumps > jumps_;
    jumps_ = std::max(jumps, jumps_);
    Time start = given.value_or(next_);
    if (last_ && !jumped) {
      start = std::max(start, *last_ + 1);
    }
    return Note({start, duration, jumped});
  }
  // A compressed audio packet. Several may begin together.
  Time Packet(Time given) {
    lastPacket_ = lastPacket_ ? std::max(given, *lastPacket_) : given;
    return *lastPacket_;
  }
  // Decoded audio samples.
  Span Samples(std::optional<Time> given, Time duration) {
    return Note({given.value_or(next_), duration, false});
  }

 private:
  Span Note(Span span) {
    last_ = span.start;
    next_ = span.start + span.duration;
    return span;
  }

  Time next_ = 0;  // end of the latest frame or samples
  std::optional<Time> last_;
  std::optional<Time> lastPacket_;
  std::int64_t jumps_ = 0;
};

}  // namespace host
