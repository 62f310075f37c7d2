// IMediaSample3: a media sample that carries numbered properties beside its data.
#pragma once

#include "platform/dshow/samples.h"

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
