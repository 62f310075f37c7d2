#include "host/channel/source/stream_failover.h"

#include <algorithm>
#include <iterator>
#include <utility>

extern "C" {
#include <libavcodec/packet.h>
}

namespace host {
namespace {

// A returning stream that pauses longer begins to return again.
constexpr Time kMaxPause = StreamFailover::kStable / 2;
// Without a keyframe of a returning stream for that long: it has none.
constexpr Time kMaxWaitForKeyframe = 10 * kSecond;

}  // namespace

void StreamFailover::OnPacket(Time duration) {
  for (auto each = candidates_.begin(); each != candidates_.end();) {
    Candidate& candidate = each->second;
    candidate.kept.clear();
    candidate.keptBytes = 0;
    candidate.read += duration;
    const bool isReturning = IsChosen(each->first) && candidate.read <= kMaxPause;
    each = isReturning ? std::next(each) : candidates_.erase(each);
  }
}

// By another stream that is better and not much behind.
bool StreamFailover::IsPreceded(const Candidate& candidate) const {
  return std::any_of(candidates_.begin(), candidates_.end(), [&](const auto& entry) {
    const auto& [stream, other] = entry;
    return &other != &candidate &&
           (IsChosen(stream) || (other.isInWantedLanguage && !candidate.isInWantedLanguage)) &&
           other.heard >= candidate.heard / 2;
  });
}

bool StreamFailover::OnOther(const AVPacket& packet, const Candidacy& candidacy) {
  Candidate& candidate = candidates_[packet.stream_index];
  candidate.heard += candidacy.duration;
  candidate.read = 0;
  ++candidate.packets;
  candidate.isInWantedLanguage = candidacy.isInWantedLanguage;
  candidate.kept.push_back(ffmpeg::RefPacket(packet));
  candidate.keptBytes += static_cast<std::size_t>(packet.size);
  while (candidate.keptBytes > kMaxKeptBytes) {
    candidate.keptBytes -= static_cast<std::size_t>(candidate.kept.front()->size);
    candidate.kept.pop_front();
  }
  if (candidacy.replacesWithdrawn) {
    return candidate.packets >= kPacketsAfterWithdrawal;
  }
  if (IsChosen(packet.stream_index)) {
    const bool isKeyframe = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    return candidate.heard >= (isKeyframe ? kStable : kMaxWaitForKeyframe);
  }
  return candidate.heard >= kSilence && !IsPreceded(candidate);
}

std::vector<ffmpeg::Packet> StreamFailover::TakeKept(int stream) {
  std::deque<ffmpeg::Packet> kept = std::move(candidates_[stream].kept);
  candidates_.clear();
  return {std::move_iterator(kept.begin()), std::move_iterator(kept.end())};
}

}  // namespace host
