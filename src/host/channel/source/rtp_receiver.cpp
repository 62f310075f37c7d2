#include "host/channel/source/rtp_receiver.h"

#include <algorithm>
#include <utility>

namespace host {
namespace {

constexpr std::size_t kRtpHeader = 12;
constexpr std::size_t kTransportPacket = 188;
constexpr std::uint8_t kSync = 0x47;
constexpr int kTransportStreamType = 33;

bool IsRtp(RtpReceiver::Bytes datagram) {
  return datagram.size() >= kRtpHeader && datagram[0] >> 6 == 2;
}

// RTCP packets, by the packet types that they use.
bool IsControl(RtpReceiver::Bytes datagram) {
  return datagram[1] >= 192 && datagram[1] <= 223;
}

std::size_t Number(RtpReceiver::Bytes datagram, std::size_t at) {
  return static_cast<std::size_t>(datagram[at] << 8 | datagram[at + 1]);
}

// Whether every transport packet has its sync byte, wherever the first one begins.
bool HasSync(RtpReceiver::Bytes bytes) {
  constexpr std::size_t kMinSyncs = 3;
  for (std::size_t begin = 0; begin < std::min(kTransportPacket, bytes.size()); ++begin) {
    std::size_t at = begin;
    std::size_t syncs = 0;
    for (; at < bytes.size() && bytes[at] == kSync; at += kTransportPacket) {
      ++syncs;
    }
    const bool isWhole = begin == 0 && bytes.size() % kTransportPacket == 0;
    if (at >= bytes.size() && (isWhole || syncs >= kMinSyncs)) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::optional<RtpReceiver::Packet> RtpReceiver::ParsePacket(Bytes datagram) {
  std::size_t begin = kRtpHeader + std::size_t{4} * (datagram[0] & 0x0F);
  const bool extended = (datagram[0] & 0x10) != 0;
  if (extended && begin + 4 <= datagram.size()) {
    begin += 4 + 4 * Number(datagram, begin + 2);
  }
  const bool padded = (datagram[0] & 0x20) != 0;
  const std::size_t padding = padded ? datagram.back() : 0;
  if (begin + padding > datagram.size()) {
    return std::nullopt;
  }
  Packet packet;
  packet.payload = datagram.subspan(begin, datagram.size() - begin - padding);
  const bool looksLikeIt = !packet.payload.empty() && packet.payload[0] == kSync &&
                           packet.payload.size() % kTransportPacket == 0;
  packet.carriesTransportStream = (datagram[1] & 0x7F) == kTransportStreamType || looksLikeIt;
  packet.sequenceNumber = static_cast<std::uint16_t>(Number(datagram, 2));
  packet.ssrc = static_cast<std::uint32_t>(Number(datagram, 8) << 16 | Number(datagram, 10));
  return packet;
}

RtpReceiver::Datagram RtpReceiver::Parse(Bytes bytes) {
  Datagram datagram;
  if (IsRtp(bytes)) {
    datagram.isControl = IsControl(bytes);
    datagram.packet = datagram.isControl ? std::nullopt : ParsePacket(bytes);
  }
  datagram.isRaw = !(datagram.packet && datagram.packet->carriesTransportStream) && HasSync(bytes);
  return datagram;
}

RtpReceiver::Bytes RtpReceiver::Take(Bytes bytes, Clock::time_point now) {
  const Datagram datagram = Parse(bytes);
  out_.clear();
  switch (framing_) {
    case Framing::kUnknown:
      return TakeUndecided(bytes, datagram, now);
    case Framing::kRaw:
      return TakeRaw(bytes, datagram);
    case Framing::kRtp:
      return TakeRtp(bytes, datagram, now);
  }
  return {};
}

bool RtpReceiver::Follows(const Undecided& earlier, const Packet& packet) {
  const auto distance = static_cast<std::int16_t>(packet.sequenceNumber - earlier.sequenceNumber);
  return earlier.carriesTransportStream == packet.carriesTransportStream &&
         earlier.ssrc == packet.ssrc && distance > 0 && distance <= kMaxSequenceJump;
}

RtpReceiver::Bytes RtpReceiver::TakeUndecided(Bytes bytes, const Datagram& datagram,
                                              Clock::time_point now) {
  if (datagram.isRaw) {
    framing_ = Framing::kRaw;
    return StartRaw(bytes);
  }
  if (!datagram.packet) {
    // RTCP is dropped; other datagrams pass as raw, but do not decide the framing.
    return datagram.isControl ? Bytes() : StartRaw(bytes);
  }
  const auto first =
      std::find_if(undecided_.begin(), undecided_.end(),
                   [&](const Undecided& earlier) { return Follows(earlier, *datagram.packet); });
  if (datagram.packet->carriesTransportStream && first != undecided_.end()) {
    return StartRtp(static_cast<std::size_t>(first - undecided_.begin()), bytes, now);
  }
  // The first packet of a sequence is counted with the second.
  others_ += first == undecided_.end() ? 0 : others_ == 0 ? 2 : 1;
  undecided_.push_back({{bytes.begin(), bytes.end()},
                        datagram.packet->ssrc,
                        datagram.packet->sequenceNumber,
                        datagram.packet->carriesTransportStream});
  if (undecided_.size() > kMaxUndecided) {
    undecided_.pop_front();
  }
  return {};
}

RtpReceiver::Bytes RtpReceiver::StartRaw(Bytes bytes) {
  others_ = 0;
  candidate_.reset();
  if (undecided_.empty()) {
    return bytes;
  }
  for (const Undecided& earlier : std::exchange(undecided_, {})) {
    Append(earlier.bytes);
  }
  Append(bytes);
  return out_;
}

RtpReceiver::Bytes RtpReceiver::StartRtp(std::size_t firstUndecided, Bytes bytes,
                                         Clock::time_point now) {
  framing_ = Framing::kRtp;
  std::deque<Undecided> earlier = std::exchange(undecided_, {});
  earlier.erase(earlier.begin(), earlier.begin() + static_cast<std::ptrdiff_t>(firstUndecided));
  const Bytes first = Start(*ParsePacket(earlier.front().bytes));
  replayed_.assign(first.begin(), first.end());
  const auto replay = [&](Bytes datagram) {
    out_.clear();
    const Bytes given = TakeRtp(datagram, Parse(datagram), now);
    replayed_.insert(replayed_.end(), given.begin(), given.end());
  };
  earlier.pop_front();
  for (const Undecided& datagram : earlier) {
    replay(datagram.bytes);
  }
  replay(bytes);
  return replayed_;
}

RtpReceiver::Bytes RtpReceiver::TakeRaw(Bytes bytes, const Datagram& datagram) {
  const std::optional<Packet>& packet = datagram.packet;
  if (!packet || !packet->carriesTransportStream) {
    if (datagram.isRaw) {
      candidate_.reset();
    }
    return bytes;
  }
  const bool follows =
      candidate_ && candidate_->ssrc == packet->ssrc && candidate_->next == packet->sequenceNumber;
  candidate_ = Candidate{packet->ssrc,
                         static_cast<std::uint16_t>(packet->sequenceNumber + 1),
                         {},
                         follows ? candidate_->packets + 1 : 1};
  if (candidate_->packets < kMinToRevise) {
    return bytes;
  }
  framing_ = Framing::kRtp;
  return Start(*packet);
}

RtpReceiver::Bytes RtpReceiver::TakeRtp(Bytes bytes, const Datagram& datagram,
                                        Clock::time_point now) {
  if (datagram.isRaw) {
    if (++rawInARow_ >= kMinToRevise) {
      framing_ = Framing::kRaw;
      reordered_.clear();
      return StartRaw(bytes);
    }
    return IsRtp(bytes) ? Bytes() : bytes;
  }
  const std::optional<Packet>& packet = datagram.packet;
  if (!packet || !packet->carriesTransportStream) {
    return {};
  }
  const auto distance =
      static_cast<std::int16_t>(packet->sequenceNumber - static_cast<std::uint16_t>(next_));
  const bool late = distance < 0;
  lateInARow_ = late ? lateInARow_ + 1 : 0;
  if (packet->ssrc != ssrc_ || distance < -kMaxSequenceJump || distance > kMaxSequenceJump ||
      lateInARow_ > kMaxLate) {
    return FromAnother(*packet);
  }
  rawInARow_ = 0;
  candidate_.reset();
  if (late) {
    return {};
  }
  return distance == 0 ? InOrder(packet->payload, now)
                       : Hold(next_ + distance, packet->payload, now);
}

// Most packets arrive when they are due, and need no copy.
RtpReceiver::Bytes RtpReceiver::InOrder(Bytes payload, Clock::time_point now) {
  ++next_;
  if (reordered_.empty()) {
    return payload;
  }
  Append(payload);
  Release(now);
  return out_;
}

RtpReceiver::Bytes RtpReceiver::Hold(std::int64_t position, Bytes payload, Clock::time_point now) {
  reordered_.try_emplace(position, Reordered{{payload.begin(), payload.end()}, now});
  Release(now);
  return out_;
}

void RtpReceiver::Release(Clock::time_point now) {
  while (!reordered_.empty()) {
    const auto first = reordered_.begin();
    const bool waits =
        reordered_.size() <= kMaxReordered && now - first->second.since < kReorderTimeout;
    if (first->first != next_ && waits) {
      return;
    }
    Append(first->second.payload);
    lost_ += static_cast<std::uint64_t>(first->first - next_);
    next_ = first->first + 1;
    reordered_.erase(first);
  }
}

RtpReceiver::Bytes RtpReceiver::FromAnother(const Packet& packet) {
  if (!candidate_ || candidate_->ssrc != packet.ssrc || candidate_->next != packet.sequenceNumber) {
    candidate_ = Candidate{packet.ssrc,
                           static_cast<std::uint16_t>(packet.sequenceNumber + 1),
                           {packet.payload.begin(), packet.payload.end()}};
    return {};
  }
  for (const auto& [position, held] : reordered_) {
    Append(held.payload);
  }
  Append(candidate_->payload);
  Append(packet.payload);
  Start(packet);
  return out_;
}

RtpReceiver::Bytes RtpReceiver::Start(const Packet& packet) {
  ssrc_ = packet.ssrc;
  next_ = packet.sequenceNumber + std::int64_t{1};
  lateInARow_ = 0;
  rawInARow_ = 0;
  reordered_.clear();
  candidate_.reset();
  return packet.payload;
}

void RtpReceiver::Append(Bytes payload) {
  out_.insert(out_.end(), payload.begin(), payload.end());
}

}  // namespace host
