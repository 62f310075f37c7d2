// What the composer keeps for each input.
#pragma once

#include <memory>

#include "filter/i_compose_command.h"
#include "pins/alarm_input_pin.h"
#include "pins/audio_input_pin.h"
#include "pins/audio_output_pin.h"
#include "pins/window_pin.h"

// The six pins of an input and the host's window object. The pins belong to the filter; they are
// destroyed in reverse order, so that no pin outlives one that it points to.
struct InputPins {
  std::unique_ptr<CComposeOutputAudioCompressedPin> audioOutput;
  std::unique_ptr<CComposeInputVideoWindowPin> video;
  std::unique_ptr<CComposeInputAudioCompressedPin> audioInput;
  std::unique_ptr<CComposeAlarmInputPin<UTF8TextSampleType>> text;
  std::unique_ptr<CComposeAlarmInputPin<AudioAlarm>> audioAlarm;
  std::unique_ptr<CComposeAlarmInputPin<VideoAlarm>> videoAlarm;
  ComPtr<IComposeWindow> window;
};
