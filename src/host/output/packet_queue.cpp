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
         (!pictures_.empty() && pictures_.back() - pictures_.front() >= limits_.span);
}

void PacketQueue::Add(TrackPacket packet) {
  bytes_ += BytesOf(packet);
  if (packet.track == TrackPacket::kVideo) {
    pictures_.push_back(packet.packet->dts);
  }
  packets_.push_back(std::move(packet));
}

// The packet leaves the queue, in the order in which it came.
void PacketQueue::Forget(const TrackPacket& packet) {
  bytes_ -= BytesOf(packet);
  if (packet.track == TrackPacket::kVideo) {
    pictures_.pop_front();
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
  pictures_.clear();
  bytes_ = 0;
}

// The frames before the second one that can be decoded alone, and the audio that goes with them.
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
    const std::lock_guard guard(lock_);
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
  filled_.notify_one();
  return result;
}

bool PacketQueue::PushWaiting(TrackPacket packet) {
  {
    std::unique_lock guard(lock_);
    roomMade_.wait(guard, [&] { return closed_ || !Full(); });
    if (closed_) {
      Drop(packet);
      return false;
    }
    Add(std::move(packet));
  }
  filled_.notify_one();
  return true;
}

void PacketQueue::Push(TrackPacket packet) {
  {
    const std::lock_guard guard(lock_);
    if (closed_) {
      Drop(packet);
      return;
    }
    Add(std::move(packet));
  }
  filled_.notify_one();
}

bool PacketQueue::WaitForRoom(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  return roomMade_.wait_for(guard, limit, [&] { return closed_ || !Full(); });
}

std::optional<TrackPacket> PacketQueue::Pop() {
  std::unique_lock guard(lock_);
  filled_.wait(guard, [&] { return closed_ || !packets_.empty(); });
  if (packets_.empty()) {
    return std::nullopt;
  }
  TrackPacket packet = std::move(packets_.front());
  packets_.pop_front();
  Forget(packet);
  guard.unlock();
  roomMade_.notify_all();
  return packet;
}

bool PacketQueue::SkipToNewestKeyframe() {
  const std::lock_guard guard(lock_);
  const auto key = std::find_if(packets_.rbegin(), packets_.rend(), &PacketQueue::IsKey);
  if (key == packets_.rend()) {
    return false;
  }
  DropBefore(*key);
  return true;
}

bool PacketQueue::DiscardFor(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  std::unique_lock guard(lock_);
  while (!closed_ && std::chrono::steady_clock::now() < end) {
    Clear();
    filled_.wait_until(guard, end, [&] { return closed_ || !packets_.empty(); });
  }
  Clear();
  waitsForKey_ = true;
  return !closed_;
}

void PacketQueue::Close() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
  }
  filled_.notify_all();
  roomMade_.notify_all();
}

void PacketQueue::Abandon() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
    Clear();
  }
  filled_.notify_all();
  roomMade_.notify_all();
}

std::size_t PacketQueue::bytes() const {
  const std::lock_guard guard(lock_);
  return bytes_;
}

}  // namespace host
