// Samples that carry numbered properties beside their data, as IMediaSample3:
// CExternalMetaDataMediaSample, another sample's data under a media type and properties of its own;
// MediaData and MediaData2, a sample with typed access to its properties; IOutputPin and
// UpStreamPin, what a stream worker sees of the output pin that it feeds.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <optional>
#include <vector>

#include "platform/baseclasses/base_pin.h"
#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/mtype.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "util/exceptions.h"

inline constexpr IID IID_IMediaSample3{
    0x5D8CEC5F, 0x63DA, 0x46A1, {0x92, 0x37, 0xA2, 0xF3, 0x58, 0x7B, 0x32, 0x3C}};

// The sample only stores a property's bytes; their meaning is known to those who write and read
// them.
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
  const char* unsupported;  // message when a sample has no IMediaSample3
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
// belong to the wrapper; the media type starts empty.
//
// Holds one reference to the wrapped sample during its lifetime. AddRef and Release on any thread;
// everything else on the thread that the sample has been handed to.
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

// The bytes of a property, whose layout is known to those who write and read it.
template <const MediaProperty& property>
using MediaPropertyBytes = std::array<BYTE, property.length>;

using CuePoint = MediaPropertyBytes<kCuePointProperty>;
using SampleDate = MediaPropertyBytes<kSampleDateProperty>;
using DataId = MediaPropertyBytes<kDataIdProperty>;
using DolbyMetadata = MediaPropertyBytes<kDolbyMetadataProperty>;
using ParentalRating = MediaPropertyBytes<kParentalRatingProperty>;
using RecordingEvent = MediaPropertyBytes<kRecordingEventProperty>;

// A sample as its holder sees it. Counted like a COM object, but not one: it never crosses a module
// boundary and may throw.
//
// The property accessors throw MediaDataError when the sample has no IMediaSample3 (with the
// property's own message) or when the stored property has another length, and COMException when the
// sample refuses a value. A getter returns none when the property is not stored.
class IMediaData {
 public:
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

  // The sample itself, without a reference.
  virtual IMediaSample* Sample() const = 0;

  virtual HRESULT GetPointer(BYTE** buffer) = 0;
  virtual LONG GetSize() = 0;
  virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  virtual HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  virtual HRESULT IsSyncPoint() = 0;
  virtual HRESULT SetSyncPoint(BOOL isSyncPoint) = 0;
  virtual HRESULT IsPreroll() = 0;
  virtual HRESULT SetPreroll(BOOL isPreroll) = 0;
  virtual LONG GetActualDataLength() = 0;
  virtual HRESULT SetActualDataLength(LONG length) = 0;
  virtual HRESULT GetMediaType(AM_MEDIA_TYPE** type) = 0;
  virtual HRESULT SetMediaType(AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT IsDiscontinuity() = 0;
  virtual HRESULT SetDiscontinuity(BOOL isDiscontinuity) = 0;
  virtual HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;
  virtual HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;

  virtual void SetCuePoint(const CuePoint& value) = 0;
  virtual std::optional<CuePoint> GetCuePoint() = 0;
  virtual void SetSampleDate(const SampleDate& value) = 0;
  virtual std::optional<SampleDate> GetSampleDate() = 0;
  virtual void SetDataId(const DataId& value) = 0;
  virtual std::optional<DataId> GetDataId() = 0;
  virtual void SetDolbyMetadata(const DolbyMetadata& value) = 0;
  virtual std::optional<DolbyMetadata> GetDolbyMetadata() = 0;
  virtual void SetParentalRating(const ParentalRating& value) = 0;
  virtual std::optional<ParentalRating> GetParentalRating() = 0;
  virtual void SetRecordingEvent(const RecordingEvent& value) = 0;
  virtual std::optional<RecordingEvent> GetRecordingEvent() = 0;

 protected:
  virtual ~IMediaData() = default;
};

using MediaDataError = ExceptionTemplate<IMediaData, std::exception>;

// Holds one reference to its sample. AddRef and Release on any thread; everything else on the
// thread that the sample has been handed to.
class MediaData : public IMediaData {
 public:
  // With one reference.
  static ComPtr<MediaData> Create(IMediaSample* sample);

  ULONG AddRef() override;
  ULONG Release() override;
  IMediaSample* Sample() const override { return sample_.Get(); }

  HRESULT GetPointer(BYTE** buffer) override { return sample_->GetPointer(buffer); }
  LONG GetSize() override { return sample_->GetSize(); }
  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    return sample_->GetTime(start, stop);
  }
  HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    return sample_->SetTime(start, stop);
  }
  HRESULT IsSyncPoint() override { return sample_->IsSyncPoint(); }
  HRESULT SetSyncPoint(BOOL isSyncPoint) override { return sample_->SetSyncPoint(isSyncPoint); }
  HRESULT IsPreroll() override { return sample_->IsPreroll(); }
  HRESULT SetPreroll(BOOL isPreroll) override { return sample_->SetPreroll(isPreroll); }
  LONG GetActualDataLength() override { return sample_->GetActualDataLength(); }
  HRESULT SetActualDataLength(LONG length) override { return sample_->SetActualDataLength(length); }
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override { return sample_->GetMediaType(type); }
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override { return sample_->SetMediaType(type); }
  HRESULT IsDiscontinuity() override { return sample_->IsDiscontinuity(); }
  HRESULT SetDiscontinuity(BOOL isDiscontinuity) override {
    return sample_->SetDiscontinuity(isDiscontinuity);
  }
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return sample_->GetMediaTime(start, stop);
  }
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return sample_->SetMediaTime(start, stop);
  }

  void SetCuePoint(const CuePoint& value) override { Store<kCuePointProperty>(value); }
  std::optional<CuePoint> GetCuePoint() override { return Load<kCuePointProperty>(); }
  void SetSampleDate(const SampleDate& value) override { Store<kSampleDateProperty>(value); }
  std::optional<SampleDate> GetSampleDate() override { return Load<kSampleDateProperty>(); }
  void SetDataId(const DataId& value) override { Store<kDataIdProperty>(value); }
  std::optional<DataId> GetDataId() override { return Load<kDataIdProperty>(); }
  void SetDolbyMetadata(const DolbyMetadata& value) override {
    Store<kDolbyMetadataProperty>(value);
  }
  std::optional<DolbyMetadata> GetDolbyMetadata() override {
    return Load<kDolbyMetadataProperty>();
  }
  void SetParentalRating(const ParentalRating& value) override {
    Store<kParentalRatingProperty>(value);
  }
  std::optional<ParentalRating> GetParentalRating() override {
    return Load<kParentalRatingProperty>();
  }
  void SetRecordingEvent(const RecordingEvent& value) override {
    Store<kRecordingEventProperty>(value);
  }
  std::optional<RecordingEvent> GetRecordingEvent() override {
    return Load<kRecordingEventProperty>();
  }

 protected:
  explicit MediaData(IMediaSample* sample) : sample_(sample) {}
  ~MediaData() override = default;

 private:
  void StoreBytes(const MediaProperty& property, const BYTE* bytes);
  // False when the property is not stored.
  bool LoadBytes(const MediaProperty& property, BYTE* bytes);

  template <const MediaProperty& property>
  void Store(const MediaPropertyBytes<property>& value) {
    StoreBytes(property, value.data());
  }
  template <const MediaProperty& property>
  std::optional<MediaPropertyBytes<property>> Load() {
    MediaPropertyBytes<property> value;
    return LoadBytes(property, value.data()) ? std::optional(value) : std::nullopt;
  }

  const ComPtr<IMediaSample> sample_;
  std::atomic<LONG> count_{1};
};

// MediaData with the sample's properties as one structure; E_NOINTERFACE when the sample has no
// IMediaSample2.
class MediaData2 final : public MediaData {
 public:
  static ComPtr<MediaData2> Create(IMediaSample* sample);

  HRESULT GetProperties(DWORD size, BYTE* properties);
  HRESULT SetProperties(DWORD size, const BYTE* properties);

 private:
  explicit MediaData2(IMediaSample* sample) : MediaData(sample) {}
};

// An outlet for samples. Called by the worker's thread; Activate and Deactivate by the thread that
// changes the filter's state.
class IOutputPin {
 public:
  virtual ~IOutputPin() = default;

  virtual HRESULT Deliver(MediaData* data) = 0;
  virtual HRESULT DeliverEndOfStream() = 0;
  // A free buffer as a new MediaData with one reference, which the caller owns. start, stop: 100 ns
  // units, may be null; flags: AM_GBF_*.
  virtual HRESULT GetDeliveryBuffer(MediaData** data, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                                    DWORD flags) = 0;
  virtual HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) = 0;
  virtual HRESULT Activate() = 0;
  virtual HRESULT Deactivate() = 0;
};

// The outlet over a pin, which it does not own.
class UpStreamPin final : public IOutputPin {
 public:
  explicit UpStreamPin(CBaseOutputPin* pin) : pin_(pin) {}

  HRESULT Deliver(MediaData* data) override;
  HRESULT DeliverEndOfStream() override;
  HRESULT GetDeliveryBuffer(MediaData** data, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                            DWORD flags) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  HRESULT Activate() override;
  HRESULT Deactivate() override;

 private:
  CBaseOutputPin* const pin_;
};
