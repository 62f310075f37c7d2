// FrameComposer: the work of one frame.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "filter/composition.h"
#include "render/drawing_engine.h"

// True for the one frame of each period that is marked as not to be presented downstream: time lies
// within half a frame of a multiple of the period. Times in 100 ns units; a period of 0, or a rate
// without a numerator, marks nothing.
bool IsPrerollFrame(REFERENCE_TIME time, REFERENCE_TIME period, const qorp::Ratio& rate);

// Turns a background frame into a composed one. Owned by the filter; called by a composition thread
// under the filter's composeLock. Its lists are kept from frame to frame so that a frame
// allocates nothing once every input has been seen.
class FrameComposer {
 public:
  // The composition outlives it.
  explicit FrameComposer(Composition& composition);
  ~FrameComposer();

  // Draws into the background frame and calls `deliver`, while the pictures that it drew are still
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
