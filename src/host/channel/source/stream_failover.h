// StreamFailover: which of the streams of its kind a track of a source reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// A source may begin further streams while it is read: its service in another form, a second
// language, a commentary. Another stream takes the place of the one that is read
//
//   - when the container has withdrawn that one: after some packets;
//   - otherwise after kSilence without a packet of it: one audio packet may last longer than many
//     of another stream. Of several streams one in the wanted language is preferred;
//   - when it is the stream that was chosen at first, and has returned for kStable.
//
// Silence is measured by what the other streams send meanwhile, not by a clock: sources are read
// faster and slower than they play. Their packets are kept until then (at most kMaxKeptBytes),
// since the first one is mostly a keyframe, and the next may be far away.
//
// Owned and called by one reader on its thread.
class StreamFailover {
 public:
  static constexpr Time kSilence = 2 * kSecond;
  static constexpr Time kStable = kSecond;
  static constexpr int kPacketsAfterWithdrawal = 10;
  static constexpr std::size_t kMaxKeptBytes = std::size_t{16} << 20;

  struct Candidacy {
    Time duration = 0;  // of the packet
    bool isInWantedLanguage = false;
    bool replacesWithdrawn = false;  // the container has the stream, and no longer the one read
  };

  // chosen: index of the stream that is read from the beginning.
  explicit StreamFailover(int chosen) : chosen_(chosen) {}

  bool IsChosen(int stream) const { return stream == chosen_; }
  // A packet of the stream that is read.
  void OnPacket(Time duration);
  // A packet of another stream of the kind. True when that one is to be read from now on, beginning
  // with TakeKept.
  bool OnOther(const AVPacket& packet, const Candidacy& candidacy);
  // The packets of that stream since the latest one of the stream that was read.
  std::vector<ffmpeg::Packet> TakeKept(int stream);

 private:
  struct Candidate {
    Time heard = 0;  // of the chosen stream: since it returned; otherwise: in the present silence
    Time read = 0;   // what was read of the present stream since the latest packet
    int packets = 0;
    bool isInWantedLanguage = false;
    std::deque<ffmpeg::Packet> kept;
    std::size_t keptBytes = 0;
  };

  bool IsPreceded(const Candidate& candidate) const;

  int chosen_;
  std::map<int, Candidate> candidates_;  // by stream index
};

}  // namespace host
