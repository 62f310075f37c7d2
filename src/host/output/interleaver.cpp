#include "host/output/interleaver.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/packet.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include "host/feed/audio_encoder.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

Time Middle(const AVPacket& packet) {
  return packet.dts + packet.duration / 2;
}

// The most silence that fills one gap: the machine may have slept for days.
constexpr Time kMaxFilled = 60 * kSecond;

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

void Interleaver::PushAudio(std::size_t channel, ffmpeg::Packet packet, Time offset) {
  Track& track = tracks_.at(channel);
  if (track.offset && offset != *track.offset) {
    Move(channel, offset - *track.offset);
  }
  track.offset = offset;
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

void SilentTracks::Restart(Time length) {
  for (auto& [channel, track] : tracks_) {
    track.from = track.end = std::max<Time>(0, track.isSilent ? 0 : track.end - length);
    track.count = 0;
  }
}

void SilentTracks::Add(std::size_t channel, const AudioFormat& format) {
  if (tracks_.contains(channel)) {
    return;
  }
  try {
    Track track;
    track.packet = EncodeSilence(format);
    if (track.packet) {
      track.sampleRate = format.parameters->sample_rate;
      track.samples =
          av_rescale_rnd(track.packet->duration, track.sampleRate, kSecond, AV_ROUND_NEAR_INF);
      tracks_[channel] = std::move(track);
    }
  } catch (const ffmpeg::Error&) {
    tracks_.erase(channel);
  }
}

void SilentTracks::Fill(std::size_t channel, Track& track, Time before, const Write& write) {
  for (;;) {
    const Time end =
        track.from + av_rescale((track.count + 1) * track.samples, kSecond, track.sampleRate);
    if (end > before) {
      return;
    }
    ffmpeg::Packet packet = ffmpeg::RefPacket(*track.packet);
    packet->pts = packet->dts = track.end;
    packet->duration = end - track.end;
    ++track.count;
    track.end = end;
    write(channel, std::move(packet));
  }
}

void SilentTracks::FillTo(Time video, const Write& write) {
  for (auto& [channel, track] : tracks_) {
    if (track.hasBegun && isLeftEmpty_(channel)) {
      track.isSilent = false;
      track.end = std::max(track.end, video - lateness_);
    }
    if (!track.isSilent && video - track.end > lateness_) {
      track.isSilent = true;
      track.from = track.end = std::max(track.end, video - lateness_ - kMaxFilled);
      track.count = 0;
    }
    if (track.isSilent) {
      Fill(channel, track, track.hasBegun ? video - lateness_ : video, write);
    }
  }
}

void SilentTracks::FillToEnd(Time end, const Write& write) {
  for (auto& [channel, track] : tracks_) {
    if (track.isSilent) {
      Fill(channel, track, end, write);
    }
  }
}

bool SilentTracks::EndBefore(std::size_t channel, const AVPacket& packet, const Write& write) {
  const auto found = tracks_.find(channel);
  if (found == tracks_.end()) {
    return true;
  }
  Track& track = found->second;
  if (track.isSilent) {
    track.hasBegun = true;  // the silence waits for audio that is late from now on
    Fill(channel, track, packet.dts, write);
    if (packet.dts + packet.duration / 2 < track.end) {
      return false;
    }
    track.isSilent = false;
  }
  track.end = std::max(track.end, packet.dts + packet.duration);
  return true;
}

}  // namespace host
