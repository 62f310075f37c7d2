#include "host/channel/source/rtp_receiver.h"

#include <algorithm>

namespace host {
namespace {

constexpr std::size_t kHeader = 12;
constexpr std::size_t kTransportPacket = 188;
constexpr std::uint8_t kSync = 0x47;
constexpr int kTransportStream = 33;  // its payload type

bool IsRtp(RtpReceiver::Bytes datagram) {
  return datagram.size() >= kHeader && datagram[0] >> 6 == 2;
}

// Types that a sender's and a receiver's reports would have, were they packets.
bool IsControl(RtpReceiver::Bytes datagram) {
  return datagram[1] >= 192 && datagram[1] <= 223;
}

std::size_t Number(RtpReceiver::Bytes datagram, std::size_t at) {
  return static_cast<std::size_t>(datagram[at] << 8 | datagram[at + 1]);
}

}  // namespace

std::optional<RtpReceiver::Packet> RtpReceiver::Parse(Bytes datagram) {
  std::size_t begin = kHeader + std::size_t{4} * (datagram[0] & 0x0F);
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
  if ((datagram[1] & 0x7F) != kTransportStream && !looksLikeIt) {
    return std::nullopt;
  }
  packet.number = static_cast<std::uint16_t>(Number(datagram, 2));
  packet.sender = static_cast<std::uint32_t>(Number(datagram, 8) << 16 | Number(datagram, 10));
  return packet;
}

RtpReceiver::Bytes RtpReceiver::Take(Bytes datagram, Clock::time_point now) {
  if (!IsRtp(datagram)) {
    return datagram;
  }
  const std::optional<Packet> packet = IsControl(datagram) ? std::nullopt : Parse(datagram);
  if (!packet) {
    others_ += IsControl(datagram) || carriesOther() || next_.has_value() ? 0 : 1;
    return {};
  }
  out_.clear();
  if (!next_) {
    return Start(*packet);
  }
  const auto distance =
      static_cast<std::int16_t>(packet->number - static_cast<std::uint16_t>(*next_));
  const bool late = distance < 0;
  lateInARow_ = late ? lateInARow_ + 1 : 0;
  if (packet->sender != sender_ || distance < -kReach || distance > kReach ||
      lateInARow_ > kMostLate) {
    return FromAnother(*packet);
  }
  candidate_.reset();
  if (late) {
    return {};
  }
  return distance == 0 ? InOrder(packet->payload, now)
                       : Hold(*next_ + distance, packet->payload, now);
}

// Most packets come when they are due: nothing is copied then.
RtpReceiver::Bytes RtpReceiver::InOrder(Bytes payload, Clock::time_point now) {
  ++*next_;
  if (held_.empty()) {
    return payload;
  }
  Append(payload);
  Release(now);
  return out_;
}

RtpReceiver::Bytes RtpReceiver::Hold(std::int64_t position, Bytes payload, Clock::time_point now) {
  held_.try_emplace(position, Held{{payload.begin(), payload.end()}, now});
  Release(now);
  return out_;
}

void RtpReceiver::Release(Clock::time_point now) {
  while (!held_.empty()) {
    const auto first = held_.begin();
    const bool waits = held_.size() <= kMostHeld && now - first->second.since < kPatience;
    if (first->first != *next_ && waits) {
      return;
    }
    Append(first->second.payload);
    next_ = first->first + 1;
    held_.erase(first);
  }
}

RtpReceiver::Bytes RtpReceiver::FromAnother(const Packet& packet) {
  if (!candidate_ || candidate_->sender != packet.sender || candidate_->next != packet.number) {
    candidate_ = Candidate{packet.sender,
                           static_cast<std::uint16_t>(packet.number + 1),
                           {packet.payload.begin(), packet.payload.end()}};
    return {};
  }
  for (const auto& [position, held] : held_) {
    Append(held.payload);
  }
  held_.clear();
  Append(candidate_->payload);
  Append(packet.payload);
  candidate_.reset();
  Start(packet);
  return out_;
}

RtpReceiver::Bytes RtpReceiver::Start(const Packet& packet) {
  sender_ = packet.sender;
  next_ = packet.number + std::int64_t{1};
  lateInARow_ = 0;
  return packet.payload;
}

void RtpReceiver::Append(Bytes payload) {
  out_.insert(out_.end(), payload.begin(), payload.end());
}

}  // namespace host
