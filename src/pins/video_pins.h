// The pins that take frames, one for the background and one for the window of each channel, and the
// output pin of the composed frames.
#pragma once

#include <atomic>
#include <vector>

#include "media/dynamic_pins.h"
#include "pins/streams.h"
#include "platform/baseclasses/base_pin.h"

class PinOwner;

// An input pin for YV12 frames. Takes every sample by reference, so its upstream allocator must
// have buffers enough for a whole queue. Created and owned by the filter.
class CComposeInputVideoPin : public CInputPinWithDynamicMediaType {
 public:
  // Buffers required of the upstream allocator. Depends on the high-water mark of the window pins'
  // queues: a queue is cut back before it can hold every buffer.
  static constexpr LONG kRequiredBuffers = 80;
  static constexpr LONG kBufferAlign = 32;  // bytes

  CComposeInputVideoPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name, ULONG index);
  ~CComposeInputVideoPin() override;

  // S_OK for YV12 with a VIDEOINFOHEADER or VIDEOINFOHEADER2; the size is not checked.
  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override;
  // Raises the allocator to the buffers that the pin needs; E_FAIL when it will not grant them.
  HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;

  // Drops the frames that wait in the pin.
  virtual void FlushSamples() {}
  // Takes frame duration and size (pixels) from a type with a VIDEOINFOHEADER2. S_FALSE leaves
  // everything as it was: silently for another format block, with a message for another subtype.
  // Called by the composition thread for types that samples bring.
  virtual HRESULT CheckVideoFormat(const CMediaType& type, LONG* width, LONG* height) = 0;

 protected:
  HRESULT ReadVideoFormat(const CMediaType& type, LONG* width, LONG* height);

  const ULONG index;  // input number; 0 for the background
  PinOwner* const filter;
  // 100 ns units; read by the streaming thread, written with every type.
  std::atomic<REFERENCE_TIME> frameDuration;
};

// Pin "InputVideo%d". Keeps the channel's samples by reference in arrival order and maps their
// timestamps onto the composer's clock with an offset and a fixed latency: the source time s is
// shown at s + timeOffset + latency. It re-synchronises when the queue runs nearly empty or grows
// too long.
//
// OnReceive runs on the channel's streaming thread, PickSample, ReadType, ReadTime,
// ReleaseOlderSamples and FlushSamples on the composition thread; the queue lock serialises them
// and is held while the pin logs. Samples are kept across pause and stop; flushing the pin does not
// empty the queue.
class CComposeInputVideoWindowPin final : public CComposeInputVideoPin {
 public:
  static constexpr std::size_t kResyncHighWater = 78;  // samples
  static constexpr std::size_t kResyncLowWater = 2;    // samples

  CComposeInputVideoWindowPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
                              ULONG index);
  ~CComposeInputVideoWindowPin() override;

  HRESULT SetMediaType(const CMediaType* type) override;
  HRESULT OnReceive(IMediaSample* sample) override;
  void FlushSamples() override;
  HRESULT CheckVideoFormat(const CMediaType& type, LONG* width, LONG* height) override;

  // Chooses the sample whose time is nearest to frameTime (composer time, 100 ns units); the
  // earlier one on a tie. *sample is released first. The chosen sample carries the format in force
  // when it differs from the one of the last pick. When there is nothing to choose, the queue is
  // emptied in the same step, so that no sample is lost that comes afterwards.
  void PickSample(REFERENCE_TIME frameTime, ComPtr<IMediaSample>* sample);
  // Media type and times of a sample that was picked. It may still be queued, and the streaming
  // thread moves format changes from sample to sample: safe to read here only.
  HRESULT ReadType(IMediaSample* sample, OwnedMediaType* type);
  HRESULT ReadTime(IMediaSample* sample, REFERENCE_TIME* start, REFERENCE_TIME* stop);
  // Drops queued samples that start before time (source time), except the last one. A format change
  // that a dropped sample announced moves to its successor.
  void ReleaseOlderSamples(REFERENCE_TIME time);

  // Composer time minus source time, and the delay of the display; read by the other pins of the
  // input on their own threads.
  REFERENCE_TIME TimeOffset() const { return timeOffset.load(std::memory_order_relaxed); }
  REFERENCE_TIME Latency() const { return latency.load(std::memory_order_relaxed); }

 private:
  void ReceiveTimed(IMediaSample* sample, REFERENCE_TIME start, REFERENCE_TIME stop)
      REQUIRES(queueLock);
  void ResetTimeOffset(IMediaSample* sample);

  CCritSec queueLock;
  std::vector<ComPtr<IMediaSample>> queue GUARDED_BY(queueLock);
  REFERENCE_TIME nextStart GUARDED_BY(queueLock) = 0;
  CMediaType lastType;                        // composition thread only
  std::atomic<REFERENCE_TIME> timeOffset{0};  // changed under queueLock
  std::atomic<REFERENCE_TIME> latency{0};
};

// Pin "InputBG". Every sample becomes one composed frame: it is given a timestamp when it comes
// without a time, its start becomes the composer's current time, and it is queued with the filter.
// Has no queue and no lock of its own.
class CComposeInputVideoBackgroundPin final : public CComposeInputVideoPin {
 public:
  CComposeInputVideoBackgroundPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name);
  ~CComposeInputVideoBackgroundPin() override;

  HRESULT OnReceive(IMediaSample* sample) override;
  HRESULT CheckVideoFormat(const CMediaType& type, LONG* width, LONG* height) override;
};

// Pin "Composition". Offers the background's format as YV12 with a VIDEOINFOHEADER2 and the wall's
// aspect ratio. The frames that it delivers are the background's own samples, on the composition
// thread under the filter's lock; the allocator that it negotiates serves no frame.
class CComposeOutputVideoPin final : public CBaseOutputPin {
 public:
  static constexpr LONG kMinOutputBuffers = 30;

  CComposeOutputVideoPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name);
  ~CComposeOutputVideoPin() override;

  HRESULT CheckMediaType(const CMediaType* type) override;
  // Fails as the background pin does while that is not connected.
  HRESULT GetMediaType(int position, CMediaType* type) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  // Quality messages from downstream are taken and dropped: the background sets the pace.
  HRESULT Notify(IBaseFilter* self, Quality quality) override;

 private:
  PinOwner* const filter;
};
