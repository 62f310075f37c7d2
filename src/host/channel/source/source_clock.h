// Turns the timestamps of a source into one clock that starts near 0 and never jumps.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/units.h"

namespace host {

// A source's timestamps start anywhere, wrap (after 26.5 hours in MPEG-TS), jump when the sender
// restarts or splices, and begin again when a file is repeated. Each kind is handled in its own
// way:
//  - A wrap is undone exactly, by the stream's known wrap period.
//  - A jump (backwards by more than kBackLimit, or forwards by more than the forward limit) gives
//    the stream a new offset with which it continues without a gap; a shorter step forwards is a
//    real gap.
//  - The other streams of the source jump a few packets earlier or later. Each keeps its own offset
//    until its own timestamps jump, and then takes that of another stream if this brings it beside
//    that stream. So audio and video stay together, and no packet from before the jump gets an
//    offset from after it.
//  - A stream that was away (a sender without audio for a while) is expected where the others are
//    by then, not where it stopped. A stream that does not return is no reference for the others.
//  - Damaged timestamps have any value, and may be shared by all packets that a container gives one
//    timestamp. In a source that may jump, a single one changes nothing: its packet follows the one
//    before it. A jump counts once a second packet confirms it. A stream that jumps alone continues
//    where it was, and returns beside the other streams as soon as its timestamps do. A gap is
//    real if all streams have it, or if the others continued meanwhile.
//
// Owned and called by one reader on its thread; no lock.
class SourceClock {
 public:
  static constexpr Time kBackLimit = kSecond / 2;
  // Longest time from decoding to presentation: kMaxFramesAhead frames, more than any codec
  // reorders, or kMaxAhead while the duration of a frame is not known.
  static constexpr Time kMaxAhead = 5 * kSecond;
  static constexpr Time kMaxFramesAhead = 16;
  // Consecutive suspect timestamps that do not confirm each other; the next one is accepted.
  static constexpr int kMaxSuspects = 3;
  // How far apart the streams of one source may be when they jump together.
  static constexpr Time kAdoptionLimit = 2 * kSecond;
  // A stream that is behind the others by more than kAway was away; one that is behind by more than
  // kGone counts as ended.
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
    bool discontinuity = false;  // the first packet of its stream after a jump
  };

  // forwardLimit: the longest step forwards that counts as a gap; none for a source whose
  // timestamps do not jump: every step forwards is a gap. origin: the source time that becomes 0;
  // by default that of the first packet.
  explicit SourceClock(std::optional<Time> forwardLimit, std::optional<Time> origin = {});

  // Adds a stream and returns its number, counted from 0. wrapPeriod 0: the timestamps never wrap.
  std::size_t AddStream(Time wrapPeriod);
  // Another stream, of another codec or frame interval, continues in place of this one.
  void ReplaceStream(std::size_t stream, Time wrapPeriod);

  // The timestamps of the next packet of a stream, on the continuous clock. A packet without any
  // timestamp follows the one before it.
  Mapped Map(std::size_t stream, Timestamps timestamps);

  // The source begins again from its origin: what follows is placed after everything so far.
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
    std::optional<Time> beforeGap{};  // if the jump may be a gap: the value before it
    Time since = 0;                   // clock time of the first packet with it
  };

  struct Stream {
    Time wrapPeriod = 0;
    Offset offset;
    bool started = false;
    Time lastRaw = 0;        // latest source time, wraps undone
    Time expected = 0;       // clock time at which the next packet would follow without a gap
    Time lastStep = 0;       // between the latest two packets
    Time claimed = 0;        // announced duration of the latest packet
    Time ahead = 0;          // of its companion, on the clock, when their packets alternate
    std::uint64_t turn = 0;  // number of its latest packet among those of all streams
    std::optional<Time> suspect{};  // source time of the latest packet, if it is suspect
    int suspects = 0;               // consecutive suspect packets
  };

  Time Unwrap(const Stream& stream, Time raw) const;
  // Classifies a packet's timestamp: it follows the one before it; it differs, and is confirmed; or
  // it is suspect until the next one confirms it.
  enum class Verdict { kFollows, kConfirmed, kSuspect };
  Verdict Classify(const Stream& stream, Time raw) const;
  // The other stream that had a packet last; null without one that has not ended.
  const Stream* Companion(const Stream& stream) const;
  // Clock time at which the stream's next packet belongs.
  Time Due(const Stream& stream) const;
  // Takes the companion's offset if this brings the stream beside it; otherwise false.
  bool JoinCompanion(Stream& stream, Time raw);
  // Gives the stream another offset if its timestamps jumped; returns whether they did.
  bool FollowJump(Stream& stream, Time raw);
  // The interval of a slow stream may show that a seeming gap of its companion is real.
  void ConfirmGap(const Stream& stream, Time raw);
  // The seeming gap is real: restores the offset before it.
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

// Within a track, times only grow, except where the source's timestamps jumped: an item that would
// begin before its predecessor begins just after that one's start. An item without a time follows
// the one before it. Times are on the source's continuous clock; one reader, no lock.
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
