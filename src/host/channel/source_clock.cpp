#include "host/channel/source_clock.h"

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

void SourceClock::AddOffset(Time value) {
  newest_ = {value, newest_.number + 1};
}

void SourceClock::Restart() {
  restarting_ = origin_.has_value();
}

// The one of raw, raw + period, raw - period, ... that lies nearest to the stream's latest time.
Time SourceClock::Unwrap(const Stream& stream, Time raw) const {
  if (stream.wrapPeriod <= 0 || !stream.started) {
    return raw;
  }
  const Time half = stream.wrapPeriod / 2;
  const Time distance = stream.lastRaw - raw;
  const Time turns = distance >= 0 ? (distance + half) / stream.wrapPeriod
                                   : -((half - distance) / stream.wrapPeriod);
  return raw + turns * stream.wrapPeriod;
}

SourceClock::Verdict SourceClock::Judge(const Stream& stream, Time raw) const {
  // Without a rhythm there is nothing to compare with.
  if (!forwardLimit_ || !stream.started || stream.lastStep <= 0) {
    return Verdict::kFollows;
  }
  const Time usual = kBackLimit + 2 * stream.lastStep;
  const auto goesOn = [&](Time from) { return raw - from >= -kBackLimit && raw - from <= usual; };
  const Time step = raw + stream.offset.value - stream.expected;
  if (step >= -kBackLimit && (step <= kBackLimit || goesOn(stream.lastRaw))) {
    return Verdict::kFollows;
  }
  const bool borneOut = stream.doubtful && goesOn(*stream.doubtful);
  return borneOut || stream.doubts >= kMostDoubts ? Verdict::kBorneOut : Verdict::kDoubtful;
}

bool SourceClock::FollowJump(Stream& stream, Time raw) {
  const auto step = [&](Time offset) { return raw + offset - stream.expected; };
  const Time now = step(stream.offset.value);
  if (now >= -kBackLimit && (!forwardLimit_ || now <= *forwardLimit_)) {
    return false;
  }
  if (stream.offset.number == newest_.number || std::abs(step(newest_.value)) > kAdoptionLimit) {
    AddOffset(stream.expected - raw);
  }
  stream.offset = newest_;
  return true;
}

SourceClock::Mapped SourceClock::Map(std::size_t index, Stamps stamps) {
  Stream& stream = streams_.at(index);
  if (restarting_) {
    restarting_ = false;
    AddOffset(end_ - origin_.value_or(0));
    for (Stream& each : streams_) {
      each.started = false;
    }
  }

  const std::optional<Time> given = stamps.dts ? stamps.dts : stamps.pts;
  Mapped mapped;
  if (!given) {
    mapped.dts = stream.started ? stream.expected : end_;
  } else {
    if (!origin_) {
      origin_ = *given;
      AddOffset(-*given);
    }
    const Time raw = Unwrap(stream, *given);
    const Verdict verdict = Judge(stream, raw);
    if (verdict == Verdict::kDoubtful) {
      mapped.dts = stream.expected;
    } else {
      if (stream.started) {
        mapped.discontinuity = FollowJump(stream, raw);
      } else {
        stream.offset = newest_;
      }
      mapped.dts = raw + stream.offset.value;
    }
    if (stamps.pts) {
      // The presentation time stays as far from the decoding time as the source has it, a wrap
      // between the two undone.
      Time ahead = *stamps.pts - *given;
      if (stream.wrapPeriod > 0) {
        ahead -= static_cast<Time>(std::llround(static_cast<double>(ahead) /
                                                static_cast<double>(stream.wrapPeriod))) *
                 stream.wrapPeriod;
      }
      // Damaged stamps would throw the picture, and all that follow it, to anywhere.
      const Time rhythm = std::max(stamps.duration, stream.lastStep);
      const Time most = rhythm > 0 ? std::max(kMostPicturesAhead * rhythm, kBackLimit) : kMostAhead;
      if (ahead >= -kBackLimit && ahead <= most) {
        mapped.pts = mapped.dts + ahead;
      }
    }
    if (verdict == Verdict::kDoubtful) {
      stream.doubtful = raw;
      ++stream.doubts;
    } else {
      if (verdict == Verdict::kBorneOut) {
        stream.lastStep = std::max<Time>(raw - *stream.doubtful, 0);
      } else if (stream.started && !mapped.discontinuity && stream.doubts == 0) {
        stream.lastStep = std::max<Time>(raw - stream.lastRaw, 0);
      }
      stream.lastRaw = raw;
      stream.doubtful.reset();
      stream.doubts = 0;
    }
  }
  stream.started = stream.started || given.has_value();
  stream.expected = mapped.dts + (stamps.duration > 0 ? stamps.duration : stream.lastStep);
  end_ = std::max(end_, mapped.pts.value_or(mapped.dts) +
                            (stamps.duration > 0 ? stamps.duration : stream.lastStep));
  return mapped;
}

}  // namespace host
