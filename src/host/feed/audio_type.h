// Media types of compressed audio.
#pragma once

#include <cstdint>
#include <vector>

#include "host/units.h"
#include "platform/baseclasses/mtype.h"

namespace host {

// The kinds that the composer's audio pins take.
enum class AudioKind { kAac, kMpeg1Or2, kMp3, kAc3, kEac3 };

struct AudioDescription {
  AudioKind kind = AudioKind::kAac;
  int sampleRate = 48'000;  // hertz
  int channels = 2;
  int bytesPerSecond = 0;            // 0 when not known
  std::vector<std::uint8_t> config;  // of AAC: its AudioSpecificConfig
};

// A WAVEFORMATEX, followed by the config:
//   AAC                raw AAC (0x00FF); packets with or without their ADTS headers
//   MPEG layers I, II  MPEG-1 audio payload (0x0050)
//   MP3                MEDIASUBTYPE_MPEG1Payload with the wave format tag 0x0055
//   AC-3, E-AC-3       MEDIASUBTYPE_DOLBY_AC3, MEDIASUBTYPE_DOLBY_DDPLUS
CMediaType AudioType(const AudioDescription& description);
// Whether compressed audio of one of these kinds can be told from the type.
bool IsAudioType(const AM_MEDIA_TYPE& type);

}  // namespace host
