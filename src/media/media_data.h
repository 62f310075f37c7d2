// MediaData and MediaData2, a sample with typed access to the properties that it carries;
// IOutputPin and UpStreamPin, what a stream worker sees of the output pin that it feeds.
#pragma once

#include <array>
#include <atomic>
#include <optional>

#include "media/external_metadata_media_sample.h"
#include "platform/baseclasses/base_pin.h"
#include "platform/com/com.h"
#include "util/exceptions.h"

// The bytes of a property, laid out by those who write and read it.
template <const MediaProperty& property>
using MediaPropertyBytes = std::array<BYTE, property.length>;

using CuePoint = MediaPropertyBytes<kCuePointProperty>;
using SampleDate = MediaPropertyBytes<kSampleDateProperty>;
using DataId = MediaPropertyBytes<kDataIdProperty>;
using DolbyMetadata = MediaPropertyBytes<kDolbyMetadataProperty>;
using ParentalRating = MediaPropertyBytes<kParentalRatingProperty>;
using RecordingEvent = MediaPropertyBytes<kRecordingEventProperty>;

// What a holder of samples sees of one. Counted like a COM object, but none: it never crosses a
// module and may throw.
//
// The property accessors throw MediaDataError when the sample has no IMediaSample3 (with the
// property's own message) or when what it holds has another length, and COMException when it
// refuses a value. A getter gives nothing when the property is not stored.
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

// Holds one reference of its sample. References may be counted on any thread; everything else
// belongs to the thread that the sample has been handed to.
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
