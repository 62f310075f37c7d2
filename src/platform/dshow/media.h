// Media types: the structures that describe a stream's format, and the GUIDs used in them. Media
// samples and the allocators that own their buffers. Reference times and their arithmetic.
#pragma once

#include <cstdint>

#include "platform/com/com.h"

using REFERENCE_TIME = std::int64_t;  // 100 ns units

struct AM_MEDIA_TYPE {
  GUID majortype;
  GUID subtype;
  BOOL bFixedSizeSamples;
  BOOL bTemporalCompression;
  ULONG lSampleSize;
  GUID formattype;
  IUnknown* pUnk;  // counted reference, usually null
  ULONG cbFormat;  // bytes at pbFormat
  BYTE* pbFormat;  // task memory
};
static_assert(sizeof(AM_MEDIA_TYPE) == 88);

struct BITMAPINFOHEADER {
  DWORD biSize;
  LONG biWidth;
  LONG biHeight;
  WORD biPlanes;
  WORD biBitCount;
  DWORD biCompression;
  DWORD biSizeImage;
  LONG biXPelsPerMeter;
  LONG biYPelsPerMeter;
  DWORD biClrUsed;
  DWORD biClrImportant;
};
static_assert(sizeof(BITMAPINFOHEADER) == 40);

struct VIDEOINFOHEADER {
  RECT rcSource;
  RECT rcTarget;
  DWORD dwBitRate;
  DWORD dwBitErrorRate;
  REFERENCE_TIME AvgTimePerFrame;
  BITMAPINFOHEADER bmiHeader;
};
static_assert(sizeof(VIDEOINFOHEADER) == 88);

struct VIDEOINFOHEADER2 {
  RECT rcSource;
  RECT rcTarget;
  DWORD dwBitRate;
  DWORD dwBitErrorRate;
  REFERENCE_TIME AvgTimePerFrame;
  DWORD dwInterlaceFlags;
  DWORD dwCopyProtectFlags;
  DWORD dwPictAspectRatioX;
  DWORD dwPictAspectRatioY;
  DWORD dwControlFlags;
  DWORD dwReserved2;
  BITMAPINFOHEADER bmiHeader;
};
static_assert(sizeof(VIDEOINFOHEADER2) == 112);

#pragma pack(push, 1)
struct WAVEFORMATEX {
  WORD wFormatTag;
  WORD nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  WORD nBlockAlign;
  WORD wBitsPerSample;
  WORD cbSize;  // bytes of extra format data that follow
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18);

// The GUID that a FOURCC or a wave format tag stands for.
constexpr GUID FourccGuid(DWORD fourcc) {
  return {fourcc, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
}
constexpr DWORD MakeFourcc(char a, char b, char c, char d) {
  return static_cast<DWORD>(static_cast<BYTE>(a)) | static_cast<DWORD>(static_cast<BYTE>(b)) << 8 |
         static_cast<DWORD>(static_cast<BYTE>(c)) << 16 |
         static_cast<DWORD>(static_cast<BYTE>(d)) << 24;
}

inline constexpr GUID MEDIATYPE_Video = FourccGuid(MakeFourcc('v', 'i', 'd', 's'));
inline constexpr GUID MEDIATYPE_Audio = FourccGuid(MakeFourcc('a', 'u', 'd', 's'));

inline constexpr GUID MEDIASUBTYPE_None{
    0xE436EB8E, 0x524F, 0x11CE, {0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr GUID MEDIASUBTYPE_YV12 = FourccGuid(MakeFourcc('Y', 'V', '1', '2'));
inline constexpr GUID MEDIASUBTYPE_PCM = FourccGuid(0x0001);
inline constexpr GUID MEDIASUBTYPE_MPEG1AudioPayload = FourccGuid(0x0050);
inline constexpr GUID MEDIASUBTYPE_RAW_AAC1 = FourccGuid(0x00FF);
inline constexpr GUID MEDIASUBTYPE_MPEG1Payload{
    0xE436EB81, 0x524F, 0x11CE, {0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr GUID MEDIASUBTYPE_MPEG2_AUDIO{
    0xE06D802B, 0xDB46, 0x11CF, {0xB4, 0xD1, 0x00, 0x80, 0x5F, 0x6C, 0xBB, 0xEA}};
inline constexpr GUID MEDIASUBTYPE_DOLBY_AC3{
    0xE06D802C, 0xDB46, 0x11CF, {0xB4, 0xD1, 0x00, 0x80, 0x5F, 0x6C, 0xBB, 0xEA}};
inline constexpr GUID MEDIASUBTYPE_DOLBY_DDPLUS{
    0xA7FB87AF, 0x2D02, 0x42FB, {0xA4, 0xD4, 0x05, 0xCD, 0x93, 0x84, 0x3B, 0xDD}};

inline constexpr GUID FORMAT_None{
    0x0F6417D6, 0xC318, 0x11D0, {0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID FORMAT_VideoInfo{
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
inline constexpr GUID FORMAT_VideoInfo2{
    0xF72A76A0, 0xEB0A, 0x11D0, {0xAC, 0xE4, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};
inline constexpr GUID FORMAT_WaveFormatEx{
    0x05589F81, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

// VIDEOINFOHEADER2::dwInterlaceFlags
inline constexpr DWORD AMINTERLACE_IsInterlaced = 0x00000001;

// Sums and differences of any two times, in 64 bits that wrap around: plain signed arithmetic would
// be undefined near the ends of the range.
constexpr REFERENCE_TIME AddTimes(REFERENCE_TIME a, REFERENCE_TIME b) {
  return static_cast<REFERENCE_TIME>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
constexpr REFERENCE_TIME SubtractTimes(REFERENCE_TIME a, REFERENCE_TIME b) {
  return static_cast<REFERENCE_TIME>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// How far two times lie apart, exact: that needs all 64 bits.
constexpr std::uint64_t TimeDistance(REFERENCE_TIME a, REFERENCE_TIME b) {
  return a < b ? static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a)
               : static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
}

// time modulo a period other than 0, with the sign of time.
constexpr REFERENCE_TIME TimeRemainder(REFERENCE_TIME time, REFERENCE_TIME period) {
  return period == -1 ? 0 : time % period;
}

struct ALLOCATOR_PROPERTIES {
  LONG cBuffers;  // number of buffers
  LONG cbBuffer;  // bytes in each, without the prefix
  LONG cbAlign;   // alignment of a buffer's data, bytes
  LONG cbPrefix;  // bytes before a buffer's data
};

// AM_SAMPLE2_PROPERTIES::dwSampleFlags
inline constexpr DWORD AM_SAMPLE_SPLICEPOINT = 0x001;
inline constexpr DWORD AM_SAMPLE_PREROLL = 0x002;
inline constexpr DWORD AM_SAMPLE_DATADISCONTINUITY = 0x004;
inline constexpr DWORD AM_SAMPLE_TYPECHANGED = 0x008;
inline constexpr DWORD AM_SAMPLE_TIMEVALID = 0x010;
inline constexpr DWORD AM_SAMPLE_TIMEDISCONTINUITY = 0x040;
inline constexpr DWORD AM_SAMPLE_STOPVALID = 0x100;
inline constexpr DWORD AM_STREAM_MEDIA = 0;

// Flags of IMemAllocator::GetBuffer
inline constexpr DWORD AM_GBF_NOWAIT = 4;

struct AM_SAMPLE2_PROPERTIES {
  DWORD cbData;  // bytes of this structure that are filled
  DWORD dwTypeSpecificFlags;
  DWORD dwSampleFlags;
  LONG lActual;
  REFERENCE_TIME tStart;
  REFERENCE_TIME tStop;
  DWORD dwStreamId;
  AM_MEDIA_TYPE* pMediaType;  // owned by the sample
  BYTE* pbBuffer;
  LONG cbBuffer;
};
static_assert(sizeof(AM_SAMPLE2_PROPERTIES) == 64);

inline constexpr IID IID_IMediaSample{
    0x56A8689A, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IMediaSample2{
    0x36B73884, 0xC2C8, 0x11CF, {0x8B, 0x46, 0x00, 0x80, 0x5F, 0x6C, 0xEF, 0x60}};
inline constexpr IID IID_IMemAllocator{
    0x56A8689C, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};

class IMediaSample : public IUnknown {
 public:
  virtual HRESULT GetPointer(BYTE** buffer) = 0;
  virtual LONG GetSize() = 0;
  // S_OK with both times, VFW_S_NO_STOP_TIME with the start alone (stop = start + 1),
  // VFW_E_SAMPLE_TIME_NOT_SET with none.
  virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  // Null pointers clear the times.
  virtual HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  virtual HRESULT IsSyncPoint() = 0;
  virtual HRESULT SetSyncPoint(BOOL isSyncPoint) = 0;
  virtual HRESULT IsPreroll() = 0;
  virtual HRESULT SetPreroll(BOOL isPreroll) = 0;
  virtual LONG GetActualDataLength() = 0;
  virtual HRESULT SetActualDataLength(LONG length) = 0;
  // S_OK with a copy that the caller frees; S_FALSE and null when the format has not changed.
  virtual HRESULT GetMediaType(AM_MEDIA_TYPE** type) = 0;
  virtual HRESULT SetMediaType(AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT IsDiscontinuity() = 0;
  virtual HRESULT SetDiscontinuity(BOOL isDiscontinuity) = 0;
  virtual HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;
  virtual HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;

 protected:
  ~IMediaSample() = default;
};

class IMediaSample2 : public IMediaSample {
 public:
  // Copies the first size bytes of the sample's AM_SAMPLE2_PROPERTIES out or in.
  virtual HRESULT GetProperties(DWORD size, BYTE* properties) = 0;
  virtual HRESULT SetProperties(DWORD size, const BYTE* properties) = 0;

 protected:
  ~IMediaSample2() = default;
};

class IMemAllocator : public IUnknown {
 public:
  virtual HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) = 0;
  virtual HRESULT GetProperties(ALLOCATOR_PROPERTIES* properties) = 0;
  virtual HRESULT Commit() = 0;
  virtual HRESULT Decommit() = 0;
  // Blocks until a sample is free (VFW_E_TIMEOUT at once with AM_GBF_NOWAIT) or the allocator is
  // decommitted (VFW_E_NOT_COMMITTED).
  virtual HRESULT GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                            DWORD flags) = 0;
  // Called by a sample whose last reference is gone.
  virtual HRESULT ReleaseBuffer(IMediaSample* sample) = 0;

 protected:
  ~IMemAllocator() = default;
};

template <>
struct InterfaceId<IMediaSample> {
  static constexpr const IID& value = IID_IMediaSample;
};
template <>
struct InterfaceId<IMediaSample2> {
  static constexpr const IID& value = IID_IMediaSample2;
};
template <>
struct InterfaceId<IMemAllocator> {
  static constexpr const IID& value = IID_IMemAllocator;
};
