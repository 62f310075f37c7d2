// Turns the time stamps of a source into one clock that starts near 0 and never jumps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/units.h"

namespace host {

// A source's time stamps start anywhere, wrap (26.5 hours in MPEG-TS), jump when the sender
// restarts or splices, and begin again when a file is repeated. Each kind of jump needs another
// answer:
//  - a wrap is undone exactly, with the stream's known wrap period, so nothing is seen of it;
//  - a jump (backwards by more than kBackLimit, or forwards by more than the forward limit) gets a
//    new offset with which the stream goes on where it was; a shorter step forwards is a real gap;
//  - the other streams of the source jump a few packets earlier or later: each keeps its own offset
//    until its own stamps jump, and then takes that of another stream if it lies beside that one
//    with it. Sound and picture thus stay together, and no packet from before the jump is thrown to
//    the other side;
//  - a stream that was away (a sender without audio for a while) is expected where the others have
//    gone meanwhile, not where it stopped; one that does not come back is no measure for them;
//  - damaged stamps say anything, also of all the packets that a container gives one stamp. A lone
//    one of a source that may jump moves nothing, its packet follows the one before it; a leap
//    counts from the second packet on that bears it out. What leaps by itself goes on where it was,
//    and comes back beside the other streams as soon as its stamps do; a gap is one when all have
//    it, or when the others went on meanwhile.
//
// Owned and called by one reader on its thread; no lock.
class SourceClock {
 public:
  static constexpr Time kBackLimit = kSecond / 2;
  // A picture is shown at most so long after it is decoded: as many pictures as any codec reorders,
  // or that time while it is not known how long they are.
  static constexpr Time kMostAhead = 5 * kSecond;
  static constexpr Time kMostPicturesAhead = 16;
  // Damaged stamps one after the other, of which each tells something else. More are believed.
  static constexpr int kMostDoubts = 3;
  // How far the streams of one source may be apart when they jump together.
  static constexpr Time kAdoptionLimit = 2 * kSecond;
  // A stream that is behind the others by more was away, and one that is behind by the second has
  // ended as far as the others can know.
  static constexpr Time kAway = kSecond;
  static constexpr Time kGone = 4 * kSecond;

  struct Stamps {
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
  // stamps do not leap, of which every step forwards is a gap. origin: the source time that becomes
  // 0; by default that of the first packet.
  explicit SourceClock(std::optional<Time> forwardLimit, std::optional<Time> origin = {});

  // Adds a stream and returns its number, counted from 0. wrapPeriod 0: the stamps never wrap.
  std::size_t AddStream(Time wrapPeriod);
  // The service goes on with another codec or rhythm, in the place of that stream.
  void ReplaceStream(std::size_t stream, Time wrapPeriod);

  // The stamps of the next packet of a stream, on the continuous clock. A packet without any stamp
  // follows the one before it.
  Mapped Map(std::size_t stream, Stamps stamps);

  // The source begins again from its origin: what follows is placed after everything given so far.
  void Restart();

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
    std::optional<Time> doubtful{};  // source time of the latest packet, which was not believed
    int doubts = 0;                  // packets in a row of that kind
  };

  Time Unwrap(const Stream& stream, Time raw) const;
  // What to think of a packet's stamp: that it follows the one before it, that it goes on from one
  // that was doubtful, or that the next one is to bear it out first.
  enum class Verdict { kFollows, kBorneOut, kDoubtful };
  Verdict Judge(const Stream& stream, Time raw) const;
  // The other stream of which a packet came last; null without one that is still there.
  const Stream* Companion(const Stream& stream) const;
  // Clock time at which the stream's next packet belongs.
  Time Due(const Stream& stream) const;
  // Takes the offset of its companion if it lies beside that with it; false if not.
  bool JoinCompanion(Stream& stream, Time raw);
  // Gives the stream another offset when its stamps jumped; true when they did.
  bool FollowLeap(Stream& stream, Time raw);
  // A slow stream shows by its rhythm that the gap that its companion seemed to have is one of the
  // source.
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

}  // namespace host
