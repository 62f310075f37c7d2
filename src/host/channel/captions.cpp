#include "host/channel/captions.h"

namespace host {

const char* CaptionOf(AudioState state) {
  switch (state) {
    case AudioState::kUnknown:
    case AudioState::kOff:
    case AudioState::kPresent:
      return "";
    case AudioState::kSilent:
      return "SILENT";
    case AudioState::kAbsent:
      return "NO AUDIO";
    case AudioState::kNoTrack:
      return "AUDIO TRACK MISSING";
    case AudioState::kNotStarted:
      return "AUDIO NOT STARTED";
    case AudioState::kUndecodable:
      return "AUDIO NOT DECODABLE";
    case AudioState::kStopped:
      return "AUDIO STOPPED";
  }
  return "";
}

const char* CaptionOf(AlarmKind kind) {
  switch (kind) {
    case AlarmKind::kLoss:
      return "NO PICTURE";
    case AlarmKind::kBlack:
      return "BLACK";
    case AlarmKind::kFreeze:
      return "FROZEN";
    case AlarmKind::kSilence:
      break;  // says which kind, see above
    case AlarmKind::kClipping:
      return "CLIPPING";
  }
  return "";
}

}  // namespace host
