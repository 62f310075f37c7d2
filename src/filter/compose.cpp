#include "filter/compose.h"

#include <array>
#include <span>
#include <string>
#include <thread>

#include "filter/frame_composer.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

constexpr int kPinsPerInput = 6;
constexpr int kFixedPins = 2;

std::u16string NumberedName(const char* stem, LONG index) {
  return WidenAscii(stem + std::to_string(index));
}

}  // namespace

CCompose::CCompose(IUnknown* outer, HRESULT* hr)
    : PinOwner(nullptr, outer, &filterLock, CLSID_TavrelComposer),
      frameSemaphore(MakeKernelObject<os::Semaphore>(0)),
      pausedEvent(MakeKernelObject<os::Event>(os::Event::Reset::kAuto)),
      pauseRequestEvent(MakeKernelObject<os::Event>(os::Event::Reset::kAuto)),
      quitEvent(MakeKernelObject<os::Event>(os::Event::Reset::kAuto)),
      frameComposer(std::make_unique<FrameComposer>(composition)) {
  composition.backgroundPin =
      std::make_unique<CComposeInputVideoBackgroundPin>(this, &filterLock, hr, u"InputBG");
  outputPin = std::make_unique<CComposeOutputVideoPin>(this, &filterLock, hr, u"Composition");
}

CUnknown* CCompose::CreateInstance(IUnknown* outer, HRESULT* hr) {
  try {
    return std::make_unique<CCompose>(outer, hr).release();
  } catch (...) {
    *hr = ResultOfException();
  }
  return nullptr;
}

CCompose::~CCompose() {
  EndCompositionThreads();
  EmptyBackgroundQueue();
}

void CCompose::EndCompositionThreads() {
  // The event wakes one thread, which wakes the next.
  quitEvent->Set();
  const auto join = [](qorp::Thread& thread) {
    // A thread must not outlive the filter: a wait that fails is repeated.
    while (!thread.Handle().Wait(os::kInfinite)) {
      std::this_thread::yield();
    }
  };
  for (const std::unique_ptr<qorp::Thread>& thread : formerThreads) {
    join(*thread);
  }
  if (compositionThread != nullptr) {
    join(*compositionThread);
  }
}

HRESULT CCompose::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IComposeCommand) {
    return GetInterface(static_cast<IComposeCommand*>(this), object);
  }
  return CBaseFilter::NonDelegatingQueryInterface(iid, object);
}

int CCompose::GetPinCount() {
  return kPinsPerInput * static_cast<int>(composition.inputs.size()) + kFixedPins;
}

CBasePin* CCompose::GetPin(int position) {
  if (position < 0) {
    return nullptr;
  }
  if (position == 0) {
    return composition.backgroundPin.get();
  }
  if (position == 1) {
    return outputPin.get();
  }
  // The index is looked up as a key, not counted: after a gap the pins of an index are not reached.
  const auto entry = composition.inputs.find((position - kFixedPins) / kPinsPerInput);
  if (entry == composition.inputs.end()) {
    return nullptr;
  }
  const InputPins& pins = entry->second;
  const std::array<CBasePin*, kPinsPerInput> order{pins.video.get(),      pins.audioInput.get(),
                                                   pins.text.get(),       pins.audioOutput.get(),
                                                   pins.videoAlarm.get(), pins.audioAlarm.get()};
  return order[static_cast<std::size_t>((position - kFixedPins) % kPinsPerInput)];
}

HRESULT CCompose::Pause() {
  HRESULT hr = S_OK;
  {
    const CAutoLock guard(&filterLock);
    const FILTER_STATE former = m_State;
    hr = CBaseFilter::Pause();
    if (former == State_Stopped) {
      return composition.backgroundPin->IsConnected() ? hr : E_FAIL;
    }
    pausing = true;
    if (compositionThread != nullptr) {
      pauseRequestEvent->Set();
    }
  }
  // Without the lock: the thread needs it to finish its frame.
  if (compositionThread != nullptr) {
    pausedEvent->Wait(os::kInfinite);
  }
  // One thread has acknowledged; a former one may still be drawing.
  const std::lock_guard noFrame(composeLock);
  EndPause();
  return hr;
}

void CCompose::EndPause() {
  std::list<ComPtr<IMediaSample>> released;
  const CAutoLock guard(&filterLock);
  released.swap(backgroundQueue);
  pausing = false;
}

void CCompose::QueueBackgroundFrame(ComPtr<IMediaSample> sample) {
  {
    const CAutoLock guard(&filterLock);
    backgroundQueue.push_back(std::move(sample));
  }
  frameSemaphore->Release();
}

ComPtr<IMediaSample> CCompose::TakeBackgroundFrame() {
  const CAutoLock guard(&filterLock);
  ComPtr<IMediaSample> sample;
  if (!pausing && !backgroundQueue.empty()) {
    sample = std::move(backgroundQueue.front());
    backgroundQueue.pop_front();
  }
  return sample;
}

void CCompose::EmptyBackgroundQueue() {
  const CAutoLock guard(&filterLock);
  backgroundQueue.clear();
}

HRESULT CCompose::Configure(LONG windowCount, qorp::log::ILogPerf* hostLogger, LONG width,
                            LONG height, LONG aspectNumerator, LONG aspectDenominator,
                            REFERENCE_TIME period, const qorp::Ratio& rate) {
  if (windowCount < 0 || (aspectNumerator == 0 && aspectDenominator == 0)) {
    return E_INVALIDARG;
  }
  return AtComBoundary([&] {
    return Set(windowCount, hostLogger, width, height,
               qorp::Reduced(qorp::Ratio{aspectNumerator, aspectDenominator}), period, rate);
  });
}

HRESULT CCompose::Set(LONG windowCount, qorp::log::ILogPerf* hostLogger, LONG width, LONG height,
                      const qorp::Ratio& aspect, REFERENCE_TIME period, const qorp::Ratio& rate) {
  const std::lock_guard frameInProgress(composeLock);
  composition.outputHeight = height;
  logger = hostLogger != nullptr ? hostLogger : &dummyLogger;
  composition.outputWidth = width;
  composition.aspectRatio = aspect;
  composition.prerollPeriod = period;
  composition.frameRate = rate;
  try {
    composition.compose = std::make_unique<Compose>(windowCount);
  } catch (const ExceptionTemplate<Compose, TavrelException>& error) {
    logger.load()->log(qorp::log::kError, "Cannot create compose lib: %s", error.what());
    return E_FAIL;
  }
  formerThreads.reserve(formerThreads.size() + 1);
  auto thread = std::make_unique<qorp::Thread>([this] { CompositionLoop(); });
  compositionThread.swap(thread);
  if (thread != nullptr) {
    formerThreads.push_back(std::move(thread));
  }
  return S_OK;
}

HRESULT CCompose::AddInput(LONG index, IUnknown* window) {
  return AtComBoundary([&] { return MakeInput(index, static_cast<IComposeWindow*>(window)); });
}

HRESULT CCompose::MakeInput(LONG index, IComposeWindow* window) {
  const auto number = static_cast<ULONG>(index);
  HRESULT unused = S_OK;
  auto video = std::make_unique<CComposeInputVideoWindowPin>(
      this, &filterLock, &unused, NumberedName("InputVideo", index).c_str(), number);
  auto audioInput = std::make_unique<CComposeInputAudioCompressedPin>(
      this, &filterLock, &unused, NumberedName("InputAudio", index).c_str(), number);
  auto audioOutput = std::make_unique<CComposeOutputAudioCompressedPin>(
      this, &filterLock, &unused, NumberedName("OutputAudio", index).c_str(), number);
  audioInput->SetPairedOutput(audioOutput.get());
  auto text = std::make_unique<CComposeAlarmInputPin<UTF8TextSampleType>>(this, video.get(),
                                                                          &filterLock, &unused);
  auto audioAlarm =
      std::make_unique<CComposeAlarmInputPin<AudioAlarm>>(this, video.get(), &filterLock, &unused);
  auto videoAlarm =
      std::make_unique<CComposeAlarmInputPin<VideoAlarm>>(this, video.get(), &filterLock, &unused);
  composition.inputSizes.try_emplace(index);
  // From here on nothing fails: an input has all its pins or is not there.
  InputPins& entry = composition.inputs[index];
  if (entry.window.Get() != window) {
    entry.window = ComPtr<IComposeWindow>(window);
  }
  // The pins that point to others are replaced first.
  entry.videoAlarm = std::move(videoAlarm);
  entry.audioAlarm = std::move(audioAlarm);
  entry.text = std::move(text);
  entry.audioInput = std::move(audioInput);
  entry.audioOutput = std::move(audioOutput);
  entry.video = std::move(video);
  IncrementPinVersion();
  return S_OK;
}

HRESULT CCompose::GetInputPins(LONG index, IPin** video, IPin** audioInput, IPin** videoAlarm,
                               IPin** audioAlarm, IPin** text) {
  const auto entry = composition.inputs.find(index);
  if (entry == composition.inputs.end()) {
    return S_FALSE;
  }
  for (IPin** const pin : {video, audioInput, videoAlarm, audioAlarm, text}) {
    if (pin == nullptr) {
      return E_POINTER;
    }
  }
  *video = entry->second.video.get();
  *audioInput = entry->second.audioInput.get();
  *videoAlarm = entry->second.videoAlarm.get();
  *audioAlarm = entry->second.audioAlarm.get();
  *text = entry->second.text.get();
  return S_OK;
}

void CCompose::CompositionLoop() {
  constexpr std::uint32_t kWaitRepeated = 0xFFFFFFFE;
  std::string lastError;
  const std::array<os::Waitable*, 3> signals{pauseRequestEvent.get(), quitEvent.get(),
                                             frameSemaphore.get()};
  while (true) {
    const std::uint32_t signalled = os::WaitAny(signals, os::kInfinite);
    if (signalled == 0) {
      pausedEvent->Set();
      continue;
    }
    if (signalled == 1) {
      quitEvent->Set();  // for the other threads, if there are any
      return;
    }
    if (signalled == kWaitRepeated) {
      continue;
    }
    try {
      const std::lock_guard oneFrame(composeLock);
      ComposeFrame();
      lastError.clear();
    } catch (const TavrelException& error) {
      // A repeated error is logged once, not on every frame.
      if (lastError != error.what()) {
        lastError = error.what();
        logger.load()->log(qorp::log::kError, "Error in composition: %s", lastError.c_str());
      }
    }
  }
}

void CCompose::ComposeFrame() {
  const ComPtr<IMediaSample> background = TakeBackgroundFrame();
  if (background) {
    frameComposer->ComposeFrame(background.Get(), [&] { DeliverFrame(background.Get()); });
  }
}

CComposeInputVideoWindowPin* CCompose::WindowPin(LONG index) const {
  const auto entry = composition.inputs.find(index);
  return entry == composition.inputs.end() ? nullptr : entry->second.video.get();
}

CComposeInputAudioCompressedPin* CCompose::AudioInputPin(LONG index) const {
  const auto entry = composition.inputs.find(index);
  return entry == composition.inputs.end() ? nullptr : entry->second.audioInput.get();
}

LONG CCompose::OutputFrameBytes() const {
  return AnnouncedPictureBytes(composition.outputWidth, composition.outputHeight);
}

void CCompose::DeliverFrame(IMediaSample* sample) {
  const CAutoLock guard(m_pLock);
  OwnedMediaType type;
  if (ReadMediaType(sample, &type) == S_OK) {
    auto* const format = FormatBlock<VIDEOINFOHEADER2>(*type);
    if (type->formattype == FORMAT_VideoInfo2 && format != nullptr) {
      format->dwInterlaceFlags = AMINTERLACE_IsInterlaced;
      sample->SetMediaType(type.get());
    }
  }
  outputPin->Deliver(sample);
}

HRESULT CCompose::BuildOutputMediaType(CMediaType*& type) {
  CMediaType built;
  const HRESULT hr = composition.backgroundPin->ConnectionMediaType(&built);
  if (FAILED(hr)) {
    return hr;
  }
  if (built.formattype == FORMAT_VideoInfo2) {
    auto* const format = FormatBlock<VIDEOINFOHEADER2>(built);
    if (format == nullptr) {
      return VFW_E_INVALIDMEDIATYPE;
    }
    format->dwPictAspectRatioX = static_cast<DWORD>(composition.aspectRatio.num);
    format->dwPictAspectRatioY = static_cast<DWORD>(composition.aspectRatio.den);
  } else {
    const auto* const header = FormatBlock<VIDEOINFOHEADER>(built);
    if (header == nullptr) {
      return VFW_E_INVALIDMEDIATYPE;
    }
    const VIDEOINFOHEADER source = *header;
    built = CMediaType(&MEDIATYPE_Video);  // with samples of a fixed size
    built.SetSubtype(&MEDIASUBTYPE_YV12);
    built.SetFormatType(&FORMAT_VideoInfo2);
    VIDEOINFOHEADER2 format{};
    format.rcSource = source.rcSource;
    format.rcTarget = source.rcTarget;
    format.AvgTimePerFrame = source.AvgTimePerFrame;
    format.dwPictAspectRatioX = static_cast<DWORD>(composition.aspectRatio.num);
    format.dwPictAspectRatioY = static_cast<DWORD>(composition.aspectRatio.den);
    BITMAPINFOHEADER& bitmap = format.bmiHeader;
    bitmap.biSize = sizeof(BITMAPINFOHEADER);
    bitmap.biWidth = source.bmiHeader.biWidth;
    bitmap.biHeight = source.bmiHeader.biHeight;
    bitmap.biPlanes = 3;  // one for each of Y, V and U
    bitmap.biBitCount = 12;
    bitmap.biCompression = MakeFourcc('Y', 'V', '1', '2');
    bitmap.biSizeImage = static_cast<DWORD>(AnnouncedPictureBytes(bitmap.biWidth, bitmap.biHeight));
    bitmap.biXPelsPerMeter = source.bmiHeader.biXPelsPerMeter;
    bitmap.biYPelsPerMeter = source.bmiHeader.biYPelsPerMeter;
    if (!built.SetFormat(reinterpret_cast<const BYTE*>(&format), sizeof(format))) {
      return E_OUTOFMEMORY;
    }
    built.lSampleSize = bitmap.biSizeImage;
  }
  return HandOut(std::move(built), type);
}
