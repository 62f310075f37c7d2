// The composer as the host sees it, and a window as the composer sees it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "filter/i_compose_command.h"
#include "host/channel/window_schedule.h"
#include "host/config/wall.h"
#include "host/units.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/graph/filter_registry.h"
#include "platform/os/mutex.h"

namespace host {

// The library's file: QXCompose.ax beside the running program, else the registered one. Throws
// GraphError with the places that were searched.
std::string FindComposerLibrary();

// Makes the filter through the class factory of its library and uses its command interface only.
// Owned by the wall; application's thread.
class ComposerFilter {
 public:
  // The pins of one input, without references: they live as long as the filter.
  struct Input {
    IPin* video = nullptr;
    IPin* audio = nullptr;
    IPin* videoAlarm = nullptr;
    IPin* audioAlarm = nullptr;
    IPin* text = nullptr;
    IPin* audioOutput = nullptr;
  };

  // Throws std::runtime_error when the library or the object is not available. windows: inputs
  // that are going to be added. logger outlives it.
  ComposerFilter(const std::string& library, const config::Canvas& canvas, std::size_t windows,
                 qorp::log::ILogPerf* logger);

  IBaseFilter* filter() const { return loaded_.filter.Get(); }
  IPin* backgroundPin() const { return Pin(0); }
  IPin* compositionPin() const { return Pin(1); }
  // Indices are given in order from 0.
  Input AddInput(LONG index, IComposeWindow* window);
  // Pins by their position in the filter's enumeration; null when there is none.
  IPin* Pin(ULONG position) const;

 private:
  LoadedFilter loaded_;
  ComPtr<IComposeCommand> command_;
};

// The composer looks at the media types of queued frames only while the window is shown, and never
// again at a frame that it has released. So that it learns the size whenever the window is shown,
// frames carry their type while the window is hidden and until it has been shown without a break
// for some time; all others have none, because looking at the types of a whole queue costs the
// composer time in every frame.
//
// Answers from the schedule of the wall, for the frame that is being composed. Called by the
// composition thread and, for types, by the channel's streaming thread; one lock.
class WallWindow final : public CUnknown, public IComposeWindow {
 public:
  DECLARE_IUNKNOWN

  // index: of the window in the schedule, and of its input. frameRate: of the wall.
  static ComPtr<WallWindow> Create(std::shared_ptr<WindowSchedule> schedule, std::size_t index,
                                   Ratio frameRate);
  WallWindow(std::shared_ptr<WindowSchedule> schedule, std::size_t index, Ratio frameRate);

  // Whether the next frame is to carry its media type.
  bool WantsType() const;
  // A frame has reached the composer: it knows the window's size once it has composed a frame in
  // which the window is enabled. Until then nothing is selected.
  void SetFrameSent();

  HRESULT GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                         BYTE* selected) override;

 private:
  const std::shared_ptr<WindowSchedule> schedule_;
  const std::size_t index_;
  const int stableFrames_;
  mutable os::Mutex lock_;
  bool frameSent_ GUARDED_BY(lock_) = false;
  int shownFrames_ GUARDED_BY(lock_) = 0;  // in a row, with frames to be shown
  bool sizeKnown_ = false;                 // composition thread only
};

}  // namespace host
