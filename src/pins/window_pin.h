// CComposeInputVideoWindowPin: the pictures of one live channel, on the composer's clock.
#pragma once

#include <vector>

#include "pins/video_input_pin.h"

// Pin "InputVideo%d". Keeps the channel's samples by reference in arrival order and maps their time
// stamps onto the composer's clock with an offset and a fixed latency: the source time s is shown
// at s + timeOffset + latency. It re-synchronises when the queue runs nearly empty or grows too
// long.
//
// OnReceive runs on the channel's streaming thread, PickSample, ReadType, ReadTime,
// ReleaseOlderSamples and FlushSamples on the composition thread; the queue lock serialises them
// and is held while the pin logs. Samples are kept across pause and stop; flushing the pin does not
// empty the queue.
class CComposeInputVideoWindowPin final : public CComposeInputVideoPin {
 public:
  static constexpr REFERENCE_TIME kWindowLatency = 10000000;  // one second
  static constexpr std::size_t kResyncHighWater = 78;         // samples
  static constexpr std::size_t kResyncLowWater = 2;           // samples

  CComposeInputVideoWindowPin(CCompose* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
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

  // Samples waiting; for tests and diagnostics.
  std::size_t QueueLength();

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
