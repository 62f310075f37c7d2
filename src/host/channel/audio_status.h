// AudioStatus: what a channel's audio is, and why its meter may be empty.
#pragma once

#include <string>

#include "host/units.h"

namespace host {

enum class AudioState {
  kUnknown,      // nothing is open, or no frame comes
  kOff,          // switched off in the wall file
  kPresent,      // it is heard
  kSilent,       // it comes, and the alarm for silence is raised
  kAbsent,       // the source has none
  kNoTrack,      // the source has none of the number that was chosen
  kNotStarted,   // the source announces it, but nothing has come
  kUndecodable,  // it comes, but cannot be decoded
  kStopped,      // it was there, and comes no more
};

// "unknown", "off", "present", "silent", "absent", "no_track", "not_started", "undecodable",
// "stopped".
const char* NameOf(AudioState state);

struct AudioStatus {
  AudioState state = AudioState::kUnknown;
  std::string reason;  // one sentence, no full stop; empty where the state says it all
  Time since = 0;      // of the wall's time
  bool operator==(const AudioStatus&) const = default;
};

}  // namespace host
