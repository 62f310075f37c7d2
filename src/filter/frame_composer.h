// FrameComposer: the work of one frame. Composition: what it is composed with, the pins of the
// composer and what samples have announced.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "filter/i_compose_command.h"
#include "pins/alarm_pins.h"
#include "pins/audio_pins.h"
#include "pins/video_pins.h"
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

// Size of an input's frames in pixels.
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

// True for the one frame of each period that is marked as not to be presented downstream: time lies
// within half a frame of a multiple of the period. Every negative time is marked. Times in 100 ns
// units; a period of 0, or a rate without a numerator, marks nothing.
bool IsPrerollFrame(REFERENCE_TIME time, REFERENCE_TIME period, const qorp::Ratio& rate);

// Turns a background frame into a composed one. Owned by the filter; called by a composition thread
// under the filter's composeLock. Its lists are kept from frame to frame so that a frame
// allocates nothing once every input has been seen.
class FrameComposer {
 public:
  // The composition outlives it.
  explicit FrameComposer(Composition& composition);
  ~FrameComposer();

  // Draws into the background frame and calls `deliver` while the samples of the windows are still
  // held. Throws TavrelException when the frame cannot be composed, and does not deliver it then.
  void ComposeFrame(IMediaSample* background, const std::function<void()>& deliver);

 private:
  // What one input contributes to a frame, in the order of the filter's inputs.
  struct Input {
    LONG index = 0;
    InputPins* pins = nullptr;
    ComPtr<IMediaSample> sample;  // held until the end of the frame
    std::optional<UTF8TextSampleType> text;
    std::optional<AudioAlarm> audioAlarm;
    std::optional<VideoAlarm> videoAlarm;
  };
  class SampleHolder;

  void FollowInputs();
  void NoteBackgroundType(IMediaSample* sample);
  void AskHost();
  void ChoosePictures(REFERENCE_TIME frameTime);
  void TakeFormat(Input& input, IMediaSample* sample);
  void ReadMeters(REFERENCE_TIME frameTime);

  Composition& composition_;
  std::vector<Input> inputs_;
  std::vector<WindowState> windows_;      // one for each of inputs_
  std::vector<WindowOverlays> overlays_;  // one for each of inputs_
  MosaicDrawer mosaic_;
};
