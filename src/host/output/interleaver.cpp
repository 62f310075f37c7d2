#include "host/output/interleaver.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/packet.h>
}

namespace host {
namespace {

Time Middle(const AVPacket& packet) {
  return packet.dts + packet.duration / 2;
}

}  // namespace

Interleaver::Interleaver(OutputCounters& counters, Time lateness)
    : counters_(counters), lateness_(lateness), tracks_(counters.channels()) {}

Interleaver::~Interleaver() {
  for (std::size_t i = 0; i < tracks_.size(); ++i) {
    counters_.of(static_cast<int>(i)).leftOut += tracks_[i].packets.size();
  }
}

void Interleaver::Move(std::size_t channel, Time by) {
  Track& track = tracks_[channel];
  for (const ffmpeg::Packet& packet : track.packets) {
    packet->pts += by;
    packet->dts += by;
  }
  while (!track.packets.empty() && track.packets.front()->dts < track.written) {
    track.packets.pop_front();
    LeaveOut(channel);
  }
}

void Interleaver::PushAudio(std::size_t channel, ffmpeg::Packet packet, Time shift) {
  Track& track = tracks_.at(channel);
  if (track.shift && shift != *track.shift) {
    Move(channel, shift - *track.shift);
  }
  track.shift = shift;
  const bool tooLate = base_ && packet->dts < std::max(*base_, newestVideo_ - lateness_);
  const bool tooEarly = base_ && packet->dts > newestVideo_ + kMaxLead;
  if (packet->dts < track.written || tooLate || tooEarly) {
    LeaveOut(channel);
    return;
  }
  while (!track.packets.empty() && packet->dts < Middle(*track.packets.back())) {
    track.packets.pop_back();
    LeaveOut(channel);
  }
  track.packets.push_back(std::move(packet));
  // Before the first frame there is nothing to measure by but the audio itself.
  while (!base_ && track.packets.back()->dts - track.packets.front()->dts > kMaxLead) {
    track.packets.pop_front();
    LeaveOut(channel);
  }
}

void Interleaver::Release(Time before, const Write& write) {
  for (;;) {
    std::size_t earliest = tracks_.size();
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      const auto& packets = tracks_[i].packets;
      if (!packets.empty() && packets.front()->dts < before &&
          (earliest == tracks_.size() ||
           packets.front()->dts < tracks_[earliest].packets.front()->dts)) {
        earliest = i;
      }
    }
    if (earliest == tracks_.size()) {
      return;
    }
    Track& track = tracks_[earliest];
    ffmpeg::Packet packet = std::move(track.packets.front());
    track.packets.pop_front();
    track.written = Middle(*packet);
    // It may have become too late here, when its channel was re-synchronised.
    if (packet->dts < std::max(*base_, newestVideo_ - lateness_)) {
      LeaveOut(earliest);
      continue;
    }
    packet->pts -= *base_;
    packet->dts -= *base_;
    write(static_cast<int>(earliest), std::move(packet));
  }
}

void Interleaver::PushVideo(ffmpeg::Packet packet, const Write& write) {
  if (!base_) {
    if ((packet->flags & AV_PKT_FLAG_KEY) == 0) {
      ++counters_.of(OutputCounters::kVideo).leftOut;
      return;
    }
    base_ = start_ = end_ = packet->pts;
  }
  Release(packet->dts, write);
  newestVideo_ = packet->dts;
  end_ = std::max(end_, packet->pts + packet->duration);
  packet->pts -= *base_;
  packet->dts -= *base_;
  write(OutputCounters::kVideo, std::move(packet));
}

Time Interleaver::Restart(Time keyframe, const Write& write) {
  Release(keyframe, write);
  return keyframe - std::exchange(*base_, keyframe);
}

void Interleaver::Finish(const Write& write) {
  if (base_) {
    Release(end_, write);
  }
}

}  // namespace host
