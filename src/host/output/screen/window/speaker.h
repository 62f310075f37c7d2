// Speaker: the audio device of a screen.
#pragma once

#include <span>
#include <string>

#include <SDL.h>

#include "host/output/screen/audio_sync.h"

namespace host {

// Plays the audio of the frames that are shown. One thread; the device has its own.
class Speaker {
 public:
  // Throws std::runtime_error with the reason when there is no device.
  Speaker();
  ~Speaker();
  Speaker(const Speaker&) = delete;
  Speaker& operator=(const Speaker&) = delete;

  // A frame of that time of the wall is on the display now.
  void FrameShown(Time wall);
  void Push(std::span<const float> samples, Time wall) { sync_.Push(samples, wall); }

 private:
  static void Fill(void* self, Uint8* bytes, int length);

  AudioSync sync_;
  SDL_AudioDeviceID device_ = 0;
};

}  // namespace host
