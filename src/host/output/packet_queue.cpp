#include "host/output/packet_queue.h"

#include <algorithm>

extern "C" {
#include <libavcodec/packet.h>
}

namespace host {
namespace {

// What a packet costs beside its data: a flood of tiny ones is bounded, too.
constexpr std::size_t kPacketOverhead = 256;

std::size_t BytesOf(const TrackPacket& packet) {
  return static_cast<std::size_t>(packet.packet->size) + kPacketOverhead;
}

}  // namespace

bool PacketQueue::IsKey(const TrackPacket& packet) {
  return packet.track == TrackPacket::kVideo && (packet.packet->flags & AV_PKT_FLAG_KEY) != 0;
}

bool PacketQueue::Full() const {
  return bytes_ >= limits_.bytes ||
         (!frames_.empty() && frames_.back() - frames_.front() >= limits_.span);
}

void PacketQueue::Add(TrackPacket packet) {
  bytes_ += BytesOf(packet);
  if (packet.track == TrackPacket::kVideo) {
    frames_.push_back(packet.packet->dts);
  }
  packets_.push_back(std::move(packet));
}

// The packet leaves the queue, in the order in which it came.
void PacketQueue::Forget(const TrackPacket& packet) {
  bytes_ -= BytesOf(packet);
  if (packet.track == TrackPacket::kVideo) {
    frames_.pop_front();
  }
}

void PacketQueue::Drop(const TrackPacket& packet) {
  ++counters_.of(packet.track).dropped;
}

void PacketQueue::Clear() {
  for (const TrackPacket& packet : packets_) {
    Drop(packet);
  }
  packets_.clear();
  frames_.clear();
  bytes_ = 0;
}

// Drops the frames before the next keyframe, and the audio that goes with them.
void PacketQueue::DropOldestFrames() {
  const auto first = std::find_if(packets_.begin(), packets_.end(), [](const TrackPacket& packet) {
    return packet.track == TrackPacket::kVideo;
  });
  const auto key = first == packets_.end()
                       ? first
                       : std::find_if(std::next(first), packets_.end(), &PacketQueue::IsKey);
  if (key == packets_.end()) {
    Clear();
    waitsForKey_ = true;
    return;
  }
  DropBefore(*key);
}

void PacketQueue::DropBefore(const TrackPacket& keyframe) {
  const Time from = keyframe.packet->dts;
  std::deque<TrackPacket> kept;
  bool reached = false;
  for (TrackPacket& packet : packets_) {
    reached = reached || &packet == &keyframe;
    const bool isAudio = packet.track != TrackPacket::kVideo;
    if (isAudio ? packet.packet->dts >= from : reached) {
      kept.push_back(std::move(packet));
    } else {
      Forget(packet);
      Drop(packet);
    }
  }
  packets_.swap(kept);
}

PacketQueue::Pushed PacketQueue::PushDropping(TrackPacket packet) {
  Pushed result = Pushed::kKept;
  {
    const os::MutexLock guard(lock_);
    if (closed_) {
      Drop(packet);
      return Pushed::kKept;
    }
    const bool isKey = IsKey(packet);
    waitsForKey_ = waitsForKey_ && !isKey;
    if (!waitsForKey_ && Full()) {
      result = Pushed::kOverflowed;
      DropOldestFrames();
      waitsForKey_ = waitsForKey_ && !isKey;
    }
    if (waitsForKey_) {
      Drop(packet);
      return result == Pushed::kKept ? Pushed::kRefused : result;
    }
    Add(std::move(packet));
  }
  filled_.NotifyOne();
  return result;
}

bool PacketQueue::PushWaiting(TrackPacket packet) {
  {
    const os::MutexLock guard(lock_);
    while (!closed_ && Full()) {
      roomMade_.Wait(lock_);
    }
    if (closed_) {
      Drop(packet);
      return false;
    }
    Add(std::move(packet));
  }
  filled_.NotifyOne();
  return true;
}

void PacketQueue::Push(TrackPacket packet) {
  {
    const os::MutexLock guard(lock_);
    if (closed_) {
      Drop(packet);
      return;
    }
    Add(std::move(packet));
  }
  filled_.NotifyOne();
}

bool PacketQueue::WaitForRoom(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const os::MutexLock guard(lock_);
  while (!closed_ && Full() && roomMade_.WaitUntil(lock_, deadline)) {
  }
  return closed_ || !Full();
}

std::optional<TrackPacket> PacketQueue::Pop() {
  TrackPacket packet;
  {
    const os::MutexLock guard(lock_);
    while (!closed_ && packets_.empty()) {
      filled_.Wait(lock_);
    }
    if (packets_.empty()) {
      return std::nullopt;
    }
    packet = std::move(packets_.front());
    packets_.pop_front();
    Forget(packet);
  }
  roomMade_.NotifyAll();
  return packet;
}

bool PacketQueue::SkipToNewestKeyframe() {
  const os::MutexLock guard(lock_);
  const auto key = std::find_if(packets_.rbegin(), packets_.rend(), &PacketQueue::IsKey);
  if (key == packets_.rend()) {
    return false;
  }
  DropBefore(*key);
  return true;
}

bool PacketQueue::DiscardFor(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  const os::MutexLock guard(lock_);
  while (!closed_ && std::chrono::steady_clock::now() < end) {
    Clear();
    while (!closed_ && packets_.empty() && filled_.WaitUntil(lock_, end)) {
    }
  }
  Clear();
  waitsForKey_ = true;
  return !closed_;
}

void PacketQueue::Close() {
  {
    const os::MutexLock guard(lock_);
    closed_ = true;
  }
  filled_.NotifyAll();
  roomMade_.NotifyAll();
}

void PacketQueue::Abandon() {
  {
    const os::MutexLock guard(lock_);
    closed_ = true;
    Clear();
  }
  filled_.NotifyAll();
  roomMade_.NotifyAll();
}

std::size_t PacketQueue::bytes() const {
  const os::MutexLock guard(lock_);
  return bytes_;
}

}  // namespace host
