// What a window's caption says of alarms and audio.
#pragma once

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_observer.h"

namespace host {

// Of what makes a meter empty; "" for what needs no word.
const char* CaptionOf(AudioState state);
// "" for silence, whose kind the state of the audio tells.
const char* CaptionOf(AlarmKind kind);

}  // namespace host
