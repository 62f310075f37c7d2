// CMediaType and the functions on plain media types.
#pragma once

#include "platform/com/com.h"
#include "platform/dshow/media.h"

// Deep copy into *target, whose former contents are not freed. E_OUTOFMEMORY leaves it without a
// format block.
HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source);
// Frees what *type holds (format block, object), not the structure itself.
void FreeMediaType(AM_MEDIA_TYPE& type);
// A copy in task memory, or null when the memory is exhausted.
AM_MEDIA_TYPE* CreateMediaType(const AM_MEDIA_TYPE* source);
// Frees a type made by CreateMediaType, contents included; null is allowed.
void DeleteMediaType(AM_MEDIA_TYPE* type);

struct MediaTypeDeleter {
  void operator()(AM_MEDIA_TYPE* type) const { DeleteMediaType(type); }
};
// Owns a type made by CreateMediaType, as IMediaSample::GetMediaType hands them out.
using OwnedMediaType = std::unique_ptr<AM_MEDIA_TYPE, MediaTypeDeleter>;

// Reads the media type of a sample: S_OK with the type, another success code without one, or an
// error; VFW_E_INVALIDMEDIATYPE when the sample returns S_OK and no type.
HRESULT ReadMediaType(IMediaSample* sample, OwnedMediaType* type);

// The format block of a type as a structure; null when the type has none, or a shorter one.
template <typename Format>
Format* FormatBlock(const AM_MEDIA_TYPE& type) {
  return type.pbFormat != nullptr && type.cbFormat >= sizeof(Format)
             ? reinterpret_cast<Format*>(type.pbFormat)
             : nullptr;
}

// A media type that owns its format block. Two types are equal when major type, subtype, format
// type, format length and format bytes are. Not thread-safe.
class CMediaType : public AM_MEDIA_TYPE {
 public:
  CMediaType();
  explicit CMediaType(const GUID* major);
  CMediaType(const AM_MEDIA_TYPE& other, HRESULT* hr = nullptr);
  CMediaType(const CMediaType& other);
  CMediaType(CMediaType&& other) noexcept;
  ~CMediaType();
  CMediaType& operator=(const CMediaType& other);
  CMediaType& operator=(const AM_MEDIA_TYPE& other);
  CMediaType& operator=(CMediaType&& other) noexcept;
  friend bool operator==(const CMediaType& a, const CMediaType& b) { return a.Equals(b); }

  // E_OUTOFMEMORY when the format block cannot be copied.
  HRESULT Set(const AM_MEDIA_TYPE& other);

  // A type with a major type; the empty one is not valid.
  bool IsValid() const { return majortype != GUID_NULL; }
  const GUID* Type() const { return &majortype; }
  void SetType(const GUID* major) { majortype = *major; }
  void SetSubtype(const GUID* sub) { subtype = *sub; }
  void SetFormatType(const GUID* format) { formattype = *format; }

  ULONG GetSampleSize() const { return bFixedSizeSamples != FALSE ? lSampleSize : 0; }
  // 0 means samples of variable size.
  void SetSampleSize(ULONG size);
  void SetVariableSize() { bFixedSizeSamples = FALSE; }

  BYTE* Format() const { return pbFormat; }
  bool SetFormat(const BYTE* format, ULONG length);
  // A format block of length bytes with undefined contents; null (and the old block kept) when the
  // memory is exhausted.
  BYTE* AllocFormatBuffer(ULONG length);

  // A type without a major type or format type can only be a request, not a connection's type.
  bool IsPartiallySpecified() const;
  // True when everything that partial specifies is equal here.
  bool MatchesPartial(const CMediaType& partial) const;

 private:
  bool Equals(const AM_MEDIA_TYPE& other) const;
};

// Moves a type into *target or, when target is null, into a new one that the caller owns; E_FAIL
// without memory.
HRESULT HandOut(CMediaType&& type, CMediaType*& target);
