// CCompose, the composer filter.
#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "filter/i_compose_command.h"
#include "filter/input_pins.h"
#include "log/dummy_log_perf.h"
#include "pins/background_pin.h"
#include "pins/video_output_pin.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/os/waitable.h"
#include "render/compose.h"
#include "util/thread.h"

class FrameComposer;

// Size of an input's pictures in pixels.
struct PictureSize {
  LONG width = -1;
  LONG height = -1;
};

// Bytes of a YV12 picture of width x height pixels, exact for every size: what buffers are checked
// against.
constexpr LONGLONG PictureBytes(LONG width, LONG height) {
  const LONGLONG area = LONGLONG{width} * height;
  return area + area / 2;
}
// The same as media types and allocators announce it: in 32 bits that wrap around, halved towards
// zero.
constexpr LONG AnnouncedPictureBytes(LONG width, LONG height) {
  return static_cast<LONG>(static_cast<ULONG>(width) * 3U * static_cast<ULONG>(height)) / 2;
}

// The one filter of the system. Owns every pin, the queue of background frames, the drawing engine
// and the composition thread, on which all drawing and all delivery of pictures happen. Its clock
// is the background input: every sample there becomes one composed frame, drawn in place.
//
// Threads: the application's thread (graph control, IComposeCommand), one upstream streaming thread
// for each connected input pin, the composition thread. filterLock is the lock of the filter and of
// all its pins; it guards the background queue and is held for the whole of a delivery. The
// composition thread never holds it while calling into an input pin.
class CCompose final : public CBaseFilter, public IComposeCommand {
 public:
  DECLARE_IUNKNOWN

  // Throws CAtlException when a kernel object cannot be made, std::bad_alloc without memory.
  CCompose(IUnknown* outer, HRESULT* hr);
  // For the class factory.
  static CUnknown* CreateInstance(IUnknown* outer, HRESULT* hr);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;
  // Ends and joins every composition thread.
  ~CCompose() override;
  int GetPinCount() override;
  // 0 is the background, 1 the output, then six pins for each index from 0; null where an index or
  // a position has none.
  CBasePin* GetPin(int position) override;
  // From paused or running, returns only when no frame is being composed any more; background
  // frames that wait are dropped. From stopped, E_FAIL when the background is not connected.
  HRESULT Pause() override;

  HRESULT Configure(LONG windowCount, qorp::log::ILogPerf* logger, LONG width, LONG height,
                    LONG aspectNumerator, LONG aspectDenominator, REFERENCE_TIME prerollPeriod,
                    const Fraction& frameRate) override;
  HRESULT AddInput(LONG index, IUnknown* window) override;
  HRESULT GetInputPins(LONG index, IPin** video, IPin** audioInput, IPin** videoAlarm,
                       IPin** audioAlarm, IPin** text) override;

  // Appends a background frame and wakes the composition thread; called by the background pin.
  void QueueBackgroundFrame(ComPtr<IMediaSample> sample);
  // The background's type as YV12 in a VIDEOINFOHEADER2 with the wall's aspect ratio. *type is
  // filled or, when it is null, allocated for the caller. The background pin's error while
  // unconnected; VFW_E_INVALIDMEDIATYPE for a type without a whole format block.
  HRESULT BuildOutputMediaType(CMediaType*& type);

 private:
  friend class CComposeInputVideoPin;
  friend class CComposeInputVideoWindowPin;
  friend class CComposeInputVideoBackgroundPin;
  friend class CComposeOutputVideoPin;
  friend class CComposeInputAudioCompressedPin;
  friend class CComposeOutputAudioCompressedPin;
  template <typename T>
  friend class CComposeAlarmInputPin;
  friend class FrameComposer;

  HRESULT Set(LONG windowCount, qorp::log::ILogPerf* hostLogger, LONG width, LONG height,
              const Fraction& aspect, REFERENCE_TIME period, const Fraction& rate);
  HRESULT MakeInput(LONG index, IComposeWindow* window);
  void CompositionLoop();
  ComPtr<IMediaSample> TakeBackgroundFrame();
  void EmptyBackgroundQueue();
  void EndPause();
  void DeliverFrame(IMediaSample* sample);
  void EndCompositionThreads();

  // Declared first and so destroyed last: every pin uses it.
  CCritSec filterLock;

  std::unique_ptr<os::Semaphore> frameSemaphore;  // one count for each queued background frame
  std::unique_ptr<os::Event> pausedEvent;         // the thread acknowledges a pause request
  std::unique_ptr<os::Event> pauseRequestEvent;
  std::unique_ptr<os::Event> quitEvent;

  qorp::log::DummyLogPerf dummyLogger;
  std::atomic<qorp::log::ILogPerf*> logger{&dummyLogger};  // not owned

  std::list<ComPtr<IMediaSample>> backgroundQueue GUARDED_BY(filterLock);
  // A pause waits for the frame in progress: no other one begins.
  bool pausing GUARDED_BY(filterLock) = false;
  // Start of the last background sample received: the composer's current time, 100 ns units.
  std::atomic<REFERENCE_TIME> lastBackgroundStart{0};

  // What the composition thread works with; changed by the application's thread while the graph is
  // stopped, under composeLock.
  std::unique_ptr<Compose> compose;
  std::unique_ptr<FrameComposer> frameComposer;
  // Held for the whole of a frame. Only a Pause and a Configure that meet a frame in progress wait
  // for it.
  std::mutex composeLock;

  std::map<LONG, PictureSize> inputSizes;  // (-1, -1) until the input's type is known
  std::map<LONG, CMediaType> inputTypes;   // last type seen on each window input
  CMediaType backgroundType;               // last type seen on the background

  Fraction aspectRatio{16, 9};  // reduced
  LONG outputWidth = 0;         // pixels
  LONG outputHeight = 0;
  REFERENCE_TIME prerollPeriod = 0;
  Fraction frameRate{0, 1};

  std::unique_ptr<CComposeInputVideoBackgroundPin> backgroundPin;
  std::map<LONG, InputPins> inputs;
  std::unique_ptr<CComposeOutputVideoPin> outputPin;

  std::unique_ptr<qorp::Thread> compositionThread;
  // Threads of earlier Configure calls: they continue to compose and end with the filter.
  std::vector<std::unique_ptr<qorp::Thread>> formerThreads;
};
