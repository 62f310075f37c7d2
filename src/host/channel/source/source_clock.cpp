#include "host/channel/source/source_clock.h"

#include <algorithm>
#include <cmath>

namespace host {

SourceClock::SourceClock(std::optional<Time> forwardLimit, std::optional<Time> origin)
    : forwardLimit_(forwardLimit), origin_(origin) {
  if (origin_) {
    AddOffset(-*origin_);
  }
}

std::size_t SourceClock::AddStream(Time wrapPeriod) {
  Stream stream;
  stream.wrapPeriod = wrapPeriod;
  streams_.push_back(stream);
  return streams_.size() - 1;
}

void SourceClock::ReplaceStream(std::size_t index, Time wrapPeriod) {
  Stream& stream = streams_.at(index);
  stream.wrapPeriod = wrapPeriod;
  stream.lastStep = stream.claimed = 0;
  stream.suspect.reset();
  stream.suspects = 0;
}

void SourceClock::AddOffset(Time value, std::optional<Time> beforeGap, Time since) {
  newest_ = {value, newest_.number + 1, beforeGap, since};
}

void SourceClock::Restart() {
  restarting_ = origin_.has_value();
}

// The one of raw, raw + period, raw - period, ... that is nearest to the stream's latest time; for
// a stream that has not begun, to that of its companion, because the streams of a source may begin
// on both sides of a wrap.
Time SourceClock::Unwrap(const Stream& stream, Time raw) const {
  const Stream* const near = stream.started ? &stream : Companion(stream);
  if (stream.wrapPeriod <= 0 || near == nullptr) {
    return raw;
  }
  const Time half = stream.wrapPeriod / 2;
  const Time distance = near->lastRaw - raw;
  const Time turns = distance >= 0 ? (distance + half) / stream.wrapPeriod
                                   : -((half - distance) / stream.wrapPeriod);
  return raw + turns * stream.wrapPeriod;
}

SourceClock::Verdict SourceClock::Classify(const Stream& stream, Time raw) const {
  const Time usual = kBackLimit + 2 * std::max(stream.lastStep, stream.claimed);
  const auto goesOn = [&](Time from) { return raw - from >= -kBackLimit && raw - from <= usual; };
  const Time time = raw + stream.offset.value;
  const Time step = time - stream.expected;
  if (step >= -kBackLimit && (step <= kBackLimit || goesOn(stream.lastRaw))) {
    return Verdict::kFollows;
  }
  const Time due = Due(stream);
  if (due != stream.expected && std::abs(time - due) <= kAdoptionLimit) {
    return Verdict::kFollows;  // it was away, and has returned beside the others
  }
  // Without a known frame interval no timestamp is suspect.
  const bool isConfirmed = !forwardLimit_ || stream.lastStep <= 0 ||
                           stream.suspects >= kMaxSuspects ||
                           (stream.suspect && goesOn(*stream.suspect));
  return isConfirmed ? Verdict::kConfirmed : Verdict::kSuspect;
}

const SourceClock::Stream* SourceClock::Companion(const Stream& stream) const {
  const Stream* companion = nullptr;
  for (const Stream& other : streams_) {
    if (&other != &stream && other.started && stream.expected - other.expected <= kGone &&
        (companion == nullptr || other.turn > companion->turn)) {
      companion = &other;
    }
  }
  return companion;
}

Time SourceClock::Due(const Stream& stream) const {
  const Stream* const companion = Companion(stream);
  if (companion == nullptr) {
    return stream.expected;
  }
  const Time beside = companion->expected + stream.ahead;
  return beside - stream.expected > kAway ? beside : stream.expected;
}

bool SourceClock::JoinCompanion(Stream& stream, Time raw) {
  const Stream* const companion = Companion(stream);
  if (companion == nullptr || companion->offset.value == stream.offset.value) {
    return false;
  }
  const Time time = raw + companion->offset.value;
  if (std::abs(time - Due(stream)) > kAdoptionLimit ||
      std::abs(time - companion->expected) > kAdoptionLimit) {
    return false;
  }
  stream.offset = companion->offset;
  if (stream.offset.beforeGap) {
    BelieveGap(Offset(stream.offset));
  }
  return true;
}

void SourceClock::ConfirmGap(const Stream& stream, Time raw) {
  const Stream* const companion = Companion(stream);
  if (companion == nullptr || companion->offset.beforeGap != stream.offset.value) {
    return;
  }
  const Offset seeming = companion->offset;
  const Time gap = stream.offset.value - seeming.value;
  const Time time = raw + stream.offset.value;
  if (gap > 0 && time - stream.expected > gap / 2 && time - seeming.since <= kAdoptionLimit + gap) {
    BelieveGap(seeming);
  }
}

void SourceClock::BelieveGap(const Offset& gap) {
  AddOffset(*gap.beforeGap);
  for (Stream& stream : streams_) {
    if (stream.offset.number == gap.number) {
      stream.expected += newest_.value - stream.offset.value;
      stream.offset = newest_;
    }
  }
}

bool SourceClock::FollowJump(Stream& stream, Time raw) {
  const Time step = raw + stream.offset.value - stream.expected;
  const bool isGap = step >= -kBackLimit && (!forwardLimit_ || step <= *forwardLimit_);
  const Stream* const companion = Companion(stream);
  if (isGap && (companion == nullptr || !forwardLimit_)) {
    return false;
  }
  if (companion != nullptr) {
    // Beside its companion, or as far from it as before: the stream catches up, has paused alone,
    // or packets were lost. Its packets before a loss may have been late.
    const Time ahead = raw + stream.offset.value - companion->expected;
    if ((isGap && std::abs(ahead) <= kBackLimit) ||
        std::abs(ahead - stream.ahead) <= std::min(std::abs(step) / 2, kAdoptionLimit)) {
      return false;
    }
  }
  const Time due = Due(stream);
  AddOffset(due - raw, isGap ? std::optional(stream.offset.value) : std::nullopt, due);
  stream.offset = newest_;
  return true;
}

SourceClock::Mapped SourceClock::Map(std::size_t index, Timestamps timestamps) {
  Stream& stream = streams_.at(index);
  if (restarting_) {
    restarting_ = false;
    AddOffset(end_ - origin_.value_or(0));
    for (Stream& each : streams_) {
      each.started = false;
    }
  }

  const std::optional<Time> given = timestamps.dts ? timestamps.dts : timestamps.pts;
  Mapped mapped;
  if (!given) {
    mapped.dts = stream.started ? stream.expected : end_;
  } else {
    if (!origin_) {
      origin_ = *given;
      AddOffset(-*given);
    }
    const Time raw = Unwrap(stream, *given);
    Verdict verdict = Verdict::kFollows;
    if (!stream.started) {
      stream.offset = newest_;
    } else if (verdict = Classify(stream, raw); verdict == Verdict::kFollows) {
      ConfirmGap(stream, raw);
    } else {
      if (JoinCompanion(stream, raw)) {
        verdict = Verdict::kFollows;
        mapped.discontinuity = true;
      } else if (verdict == Verdict::kConfirmed) {
        mapped.discontinuity = FollowJump(stream, raw);
      }
    }
    mapped.dts = verdict == Verdict::kSuspect ? Due(stream) : raw + stream.offset.value;
    if (timestamps.pts) {
      // PTS stays as far from DTS as in the source; a wrap between the two is undone.
      Time ahead = *timestamps.pts - *given;
      if (stream.wrapPeriod > 0) {
        ahead -= static_cast<Time>(std::llround(static_cast<double>(ahead) /
                                                static_cast<double>(stream.wrapPeriod))) *
                 stream.wrapPeriod;
      }
      // A damaged PTS would place the frame, and all after it, at any time.
      const Time interval = stream.lastStep > 0 ? stream.lastStep : timestamps.duration;
      const Time most = interval > 0 ? std::max(kMaxFramesAhead * interval, kBackLimit) : kMaxAhead;
      if (ahead >= -kBackLimit && ahead <= most) {
        mapped.pts = mapped.dts + ahead;
      }
    }
    if (verdict == Verdict::kSuspect) {
      stream.suspect = raw;
      ++stream.suspects;
    } else {
      if (verdict == Verdict::kConfirmed && stream.suspect) {
        stream.lastStep = std::max<Time>(raw - *stream.suspect, 0);
      } else if (stream.started && !mapped.discontinuity && stream.suspects == 0) {
        stream.lastStep = std::max<Time>(raw - stream.lastRaw, 0);
      }
      // Measured when the packets of the two alternate: a stream that is away stands still.
      if (const Stream* const companion = Companion(stream);
          companion != nullptr && companion->turn == turn_) {
        stream.ahead = mapped.dts - companion->expected;
      }
      stream.lastRaw = raw;
      stream.suspect.reset();
      stream.suspects = 0;
    }
  }
  stream.started = stream.started || given.has_value();
  // A damaged header may announce any duration.
  const bool isPlausible = timestamps.duration > 0 &&
                           (stream.lastStep <= 0 || timestamps.duration <= 2 * stream.lastStep);
  stream.expected = mapped.dts + (isPlausible ? timestamps.duration : stream.lastStep);
  stream.claimed = timestamps.duration;
  stream.turn = ++turn_;
  end_ = std::max(end_, mapped.pts.value_or(mapped.dts) +
                            (timestamps.duration > 0 ? timestamps.duration : stream.lastStep));
  return mapped;
}

}  // namespace host
