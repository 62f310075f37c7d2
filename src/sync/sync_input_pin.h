// CSyncInputPin: an input pin whose samples map ticks of a counter to times.
#pragma once

#include "platform/baseclasses/base_input_pin.h"
#include "sync/synchronizer.h"

inline constexpr GUID MEDIATYPE_TickReference{
    0xE58943E9, 0xF56E, 0x4991, {0x9D, 0xF0, 0xAE, 0x45, 0x28, 0xA7, 0xBE, 0x15}};
inline constexpr GUID MEDIASUBTYPE_TickReference{
    0xCF9DB4CD, 0xB1C9, 0x470C, {0xAB, 0xE4, 0xAA, 0xFE, 0x78, 0x8C, 0xB7, 0xDF}};

// Posted to the graph, without parameters, with the first reference after a start or a reset.
inline constexpr LONG kSynchronizedEvent = 0x8066;

// Feeds a synchroniser of its own and stands for it. A sample carries
//
//   offset  size  field
//   0       8     counter value, unsigned, little-endian
//
// and its start time is the stream time of that value.
//
// Owned by its filter. Samples come on the upstream streaming thread; the ISyncSource interface may
// be asked from any thread.
class CSyncInputPin final : public CBaseInputPin, public ISyncSource {
 public:
  // wrapTicks: the counter's modulus; tickRate: its ticks per second, not 0.
  CSyncInputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* hr,
                LPCWSTR name, std::uint64_t wrapTicks, std::uint64_t tickRate);

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  // E_FAIL for a sample that is not 8 bytes long; otherwise what the sample's accessors or the
  // posting of the event answer. A sample that fails before the event leaves the reference as it
  // was.
  HRESULT Receive(IMediaSample* sample) override;

  bool IsSynchronized() override { return synchronizer_.IsSynchronized(); }
  REFERENCE_TIME ToReferenceTime(std::uint64_t ticks) override {
    return synchronizer_.ToReferenceTime(ticks);
  }
  // The next reference counts as the first one again.
  void ResetReference() { synchronizer_.ResetReference(); }

 private:
  HRESULT PostSynchronized();

  CSynchronizer synchronizer_;
};
