// CExternalMetaDataMediaSample: another sample's data under a media type and properties of its own.
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "media/i_media_sample3.h"
#include "platform/baseclasses/mtype.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com_ptr.h"

// Wraps a sample that belongs to somebody else, so that a media type can be attached to it (or its
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

  HRESULT GetPointer(BYTE** buffer) override;
  LONG GetSize() override;
  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
  HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
  HRESULT IsSyncPoint() override;
  HRESULT SetSyncPoint(BOOL isSyncPoint) override;
  HRESULT IsPreroll() override;
  HRESULT SetPreroll(BOOL isPreroll) override;
  LONG GetActualDataLength() override;
  HRESULT SetActualDataLength(LONG length) override;
  // The type that SetMediaType has attached, never the wrapped sample's.
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override;
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override;
  HRESULT IsDiscontinuity() override;
  HRESULT SetDiscontinuity(BOOL isDiscontinuity) override;
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override;
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override;
  // All of the above in one structure. Its type is the attached one or else, until SetMediaType is
  // called, the one that the wrapped sample had when it was wrapped.
  HRESULT GetProperties(DWORD size, BYTE* properties) override;
  HRESULT SetProperties(DWORD size, const BYTE* properties) override;

  HRESULT GetProperty(LONG id, const BYTE** bytes, ULONG* length) override;
  HRESULT SetProperty(LONG id, const BYTE* bytes, ULONG length) override;
  HRESULT RemoveProperty(LONG id) override;

 private:
  struct MediaTimes {
    LONGLONG start;
    LONGLONG stop;
  };

  void CopyTimes();
  void CopyFlags();
  void CopyTypeAndStream();
  void CopyProperties();
  HRESULT FlagResult(DWORD flag) const { return (flags_ & flag) != 0 ? S_OK : S_FALSE; }
  void SetFlag(DWORD flag, bool on) { flags_ = on ? flags_ | flag : flags_ & ~flag; }
  AM_MEDIA_TYPE* TypeOfProperties() const;

  const ComPtr<IMediaSample> sample_;
  DWORD flags_ = 0;  // AM_SAMPLE_*
  DWORD typeSpecificFlags_ = 0;
  DWORD streamId_ = AM_STREAM_MEDIA;
  REFERENCE_TIME start_ = 0;
  REFERENCE_TIME stop_ = 0;
  std::optional<MediaTimes> mediaTimes_;
  OwnedMediaType type_;
  OwnedMediaType wrappedType_;  // until SetMediaType is called
  std::map<LONG, std::vector<BYTE>> properties_;
};
