// What a frame is composed with: the pins of the composer, and what samples have announced.
#pragma once

#include <map>
#include <memory>

#include "filter/i_compose_command.h"
#include "pins/alarm_input_pin.h"
#include "pins/audio_pins.h"
#include "pins/video_input_pins.h"
#include "render/drawing_engine.h"

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

// Size of an input's pictures in pixels.
struct WindowSize {
  LONG width = -1;
  LONG height = -1;
};

// Shared by the filter, which owns it, and its frame composer, which works with it on the
// composition thread for the length of a frame. The application's thread changes it while the graph
// is stopped; the settings and the engine under the filter's composeLock.
struct Composition {
  // Set by Configure.
  qorp::Ratio aspectRatio{16, 9};  // reduced
  LONG outputWidth = 0;            // pixels
  LONG outputHeight = 0;
  REFERENCE_TIME prerollPeriod = 0;  // 100 ns units
  qorp::Ratio frameRate{0, 1};
  std::unique_ptr<Compose> compose;

  std::map<LONG, WindowSize> inputSizes;  // (-1, -1) until the input's type is known
  std::map<LONG, CMediaType> inputTypes;  // last type seen on each window input
  CMediaType backgroundType;              // last type seen on the background

  std::unique_ptr<CComposeInputVideoBackgroundPin> backgroundPin;
  std::map<LONG, InputPins> inputs;
};
