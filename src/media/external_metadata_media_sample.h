// IMediaSample3, a media sample that carries numbered properties beside its data, and
// CExternalMetaDataMediaSample: another sample's data under a media type and properties of its own.
#pragma once

#include <map>
#include <vector>

#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/mtype.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"

inline constexpr IID IID_IMediaSample3{
    0x5D8CEC5F, 0x63DA, 0x46A1, {0x92, 0x37, 0xA2, 0xF3, 0x58, 0x7B, 0x32, 0x3C}};

// What a property's bytes mean is between those who write and those who read it; the sample only
// keeps them.
class IMediaSample3 : public IMediaSample2 {
 public:
  // The stored bytes, which stay the sample's own and valid until the property is set or removed;
  // E_FAIL (and null, 0) when there are none.
  virtual HRESULT GetProperty(LONG id, const BYTE** bytes, ULONG* length) = 0;
  // Keeps a copy of the bytes in place of any former ones.
  virtual HRESULT SetProperty(LONG id, const BYTE* bytes, ULONG length) = 0;
  virtual HRESULT RemoveProperty(LONG id) = 0;

 protected:
  ~IMediaSample3() = default;
};

template <>
struct InterfaceId<IMediaSample3> {
  static constexpr const IID& value = IID_IMediaSample3;
};

// A property that this product line knows.
struct MediaProperty {
  LONG id;
  ULONG length;             // bytes
  const char* unsupported;  // said when a sample has no IMediaSample3
};

inline constexpr MediaProperty kCuePointProperty{
    0, 24, "Cue Point management needs IMediaSample3 interface"};
inline constexpr MediaProperty kSampleDateProperty{
    1, 8, "Sample Date management needs IMediaSample3 interface"};
inline constexpr MediaProperty kDataIdProperty{2, 8,
                                               "DataId management needs IMediaSample3 interface"};
inline constexpr MediaProperty kDolbyMetadataProperty{
    3, 84, "DolbyMetadata management needs IMediaSample3 interface"};
inline constexpr MediaProperty kParentalRatingProperty{
    4, 5144, "\"Parental Rating\" management needs IMediaSample3 interface"};
inline constexpr MediaProperty kRecordingEventProperty{
    5, 2, "recording event management needs IMediaSample3 interface"};

inline constexpr MediaProperty kMediaProperties[] = {
    kCuePointProperty,      kSampleDateProperty,     kDataIdProperty,
    kDolbyMetadataProperty, kParentalRatingProperty, kRecordingEventProperty};

// Wraps a sample of another owner, so that a media type can be attached to it (or its
// times changed) without touching it. Buffer, size and length of the data are the wrapped sample's,
// read and set there; times, flags, the known properties and the stream are copied once and then
// the wrapper's own; the media type starts empty.
//
// Holds one reference of the wrapped sample for its own life. References may be counted on any
// thread; everything else belongs to the thread that the sample has been handed to.
class CExternalMetaDataMediaSample final : public CUnknown, public IMediaSample3 {
 public:
  DECLARE_IUNKNOWN

  // A wrapper with one reference. Throws COMException with the code of an accessor of the sample
  // that failed.
  static ComPtr<IMediaSample> Create(IMediaSample* sample);
  explicit CExternalMetaDataMediaSample(IMediaSample* sample);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  HRESULT GetPointer(BYTE** buffer) override { return sample_->GetPointer(buffer); }
  LONG GetSize() override { return sample_->GetSize(); }
  LONG GetActualDataLength() override { return sample_->GetActualDataLength(); }
  HRESULT SetActualDataLength(LONG length) override { return sample_->SetActualDataLength(length); }

  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    return own_.GetTime(start, stop);
  }
  HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    return own_.SetTime(start, stop);
  }
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return own_.GetMediaTime(start, stop);
  }
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return own_.SetMediaTime(start, stop);
  }
  HRESULT IsSyncPoint() override { return own_.IsSyncPoint(); }
  HRESULT SetSyncPoint(BOOL isSyncPoint) override { return own_.SetSyncPoint(isSyncPoint); }
  HRESULT IsPreroll() override { return own_.IsPreroll(); }
  HRESULT SetPreroll(BOOL isPreroll) override { return own_.SetPreroll(isPreroll); }
  HRESULT IsDiscontinuity() override { return own_.IsDiscontinuity(); }
  HRESULT SetDiscontinuity(BOOL isDiscontinuity) override {
    return own_.SetDiscontinuity(isDiscontinuity);
  }
  // The type that SetMediaType has attached, never the wrapped sample's.
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override { return own_.GetMediaType(type); }
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override;
  // All of the above in one structure. Its type is the attached one or else, until SetMediaType is
  // called, the one that the wrapped sample had when it was wrapped.
  HRESULT GetProperties(DWORD size, BYTE* properties) override;
  HRESULT SetProperties(DWORD size, const BYTE* properties) override;

  HRESULT GetProperty(LONG id, const BYTE** bytes, ULONG* length) override;
  HRESULT SetProperty(LONG id, const BYTE* bytes, ULONG length) override;
  HRESULT RemoveProperty(LONG id) override;

 private:
  void CopyTimes();
  void CopyFlags();
  void CopyTypeAndStream();
  void CopyProperties();

  const ComPtr<IMediaSample> sample_;
  // The wrapper's own times, flags, stream and type: a sample without a buffer or an allocator,
  // whose references are not counted.
  CMediaSample own_{nullptr, nullptr, nullptr, nullptr, 0};
  OwnedMediaType wrappedType_;  // until SetMediaType is called
  std::map<LONG, std::vector<BYTE>> properties_;
};
