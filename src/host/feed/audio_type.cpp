#include "host/feed/audio_type.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace host {
namespace {

struct Kind {
  AudioKind kind;
  GUID subtype;
  WORD tag;
};

constexpr WORD kDolbyTag = 0x2000;
constexpr Kind kKinds[] = {
    {AudioKind::kAac, MEDIASUBTYPE_RAW_AAC1, 0x00FF},
    {AudioKind::kMpeg1Or2, MEDIASUBTYPE_MPEG1AudioPayload, 0x0050},
    {AudioKind::kMp3, MEDIASUBTYPE_MPEG1Payload, 0x0055},
    {AudioKind::kAc3, MEDIASUBTYPE_DOLBY_AC3, kDolbyTag},
    {AudioKind::kEac3, MEDIASUBTYPE_DOLBY_DDPLUS, kDolbyTag},
};

}  // namespace

CMediaType AudioType(const AudioDescription& description) {
  const Kind& kind = *std::find_if(std::begin(kKinds), std::end(kKinds),
                                   [&](const Kind& k) { return k.kind == description.kind; });
  WAVEFORMATEX format{};
  format.wFormatTag = kind.tag;
  format.nChannels = static_cast<WORD>(description.channels);
  format.nSamplesPerSec = static_cast<DWORD>(description.sampleRate);
  format.nAvgBytesPerSec = static_cast<DWORD>(description.bytesPerSecond);
  format.nBlockAlign = 1;
  format.cbSize = static_cast<WORD>(description.config.size());
  std::vector<BYTE> block(sizeof(format) + description.config.size());
  std::memcpy(block.data(), &format, sizeof(format));
  std::copy(description.config.begin(), description.config.end(), block.begin() + sizeof(format));
  CMediaType type(&MEDIATYPE_Audio);
  type.SetSubtype(&kind.subtype);
  type.SetFormatType(&FORMAT_WaveFormatEx);
  type.SetFormat(block.data(), static_cast<ULONG>(block.size()));
  type.SetVariableSize();
  return type;
}

bool IsAudioType(const AM_MEDIA_TYPE& type) {
  return type.majortype == MEDIATYPE_Audio &&
         std::any_of(std::begin(kKinds), std::end(kKinds),
                     [&](const Kind& kind) { return kind.subtype == type.subtype; });
}

}  // namespace host
