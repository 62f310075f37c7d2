// CCompose, the composer filter.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "filter/frame_composer.h"
#include "filter/i_compose_command.h"
#include "log/log_perf.h"
#include "pins/pin_owner.h"
#include "pins/video_pins.h"
#include "platform/os/thread.h"
#include "util/thread.h"

// The one filter of the system. Owns every pin, the queue of background frames, the drawing engine
// and the composition thread, on which all drawing and all delivery of frames happen. Its clock is
// the background input: every sample there becomes one composed frame, drawn in place.
//
// Threads: the application's thread (graph control, IComposeCommand), one upstream streaming thread
// for each connected input pin, the composition thread. filterLock is the lock of the filter and of
// all its pins; it guards the background queue and is held for the whole of a delivery. The
// composition thread never holds it while calling into an input pin.
class CCompose final : public PinOwner, public IComposeCommand {
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
                    const qorp::Ratio& frameRate) override;
  HRESULT AddInput(LONG index, IUnknown* window) override;
  HRESULT GetInputPins(LONG index, IPin** video, IPin** audioInput, IPin** videoAlarm,
                       IPin** audioAlarm, IPin** text) override;

  qorp::log::ILogPerf* Logger() const override { return logger; }
  REFERENCE_TIME PresentTime() const override { return lastBackgroundStart; }
  void SetPresentTime(REFERENCE_TIME time) override { lastBackgroundStart = time; }
  void QueueBackgroundFrame(ComPtr<IMediaSample> sample) override;
  CComposeInputVideoWindowPin* WindowPin(LONG index) const override;
  CComposeInputAudioCompressedPin* AudioInputPin(LONG index) const override;
  HRESULT BuildOutputMediaType(CMediaType*& type) override;
  LONG OutputFrameBytes() const override;

 private:
  HRESULT Set(LONG windowCount, qorp::log::ILogPerf* hostLogger, LONG width, LONG height,
              const qorp::Ratio& aspect, REFERENCE_TIME period, const qorp::Ratio& rate);
  HRESULT MakeInput(LONG index, IComposeWindow* window);
  void CompositionLoop();
  void ComposeFrame();
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

  Composition composition;
  std::unique_ptr<FrameComposer> frameComposer;
  // Held for the whole of a frame. Only a Pause and a Configure that meet a frame in progress wait
  // for it.
  std::mutex composeLock;

  std::unique_ptr<CComposeOutputVideoPin> outputPin;

  std::unique_ptr<qorp::Thread> compositionThread;
  // Threads of earlier Configure calls: they continue to compose and end with the filter.
  std::vector<std::unique_ptr<qorp::Thread>> formerThreads;
};
