#include "host/output/screen/window/speaker.h"

#include <chrono>
#include <stdexcept>

namespace host {
namespace {

constexpr int kSamples = 512;  // that the device asks for
// What is filled now is heard after the buffer that the device plays and the one that waits.
constexpr Time kLatency = Time{2} * kSamples * kSecond / AudioSync::kSampleRate;

Time Now() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(100);
}

}  // namespace

Speaker::Speaker() {
  if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
    throw std::runtime_error(SDL_GetError());
  }
  SDL_AudioSpec wanted{};
  wanted.freq = AudioSync::kSampleRate;
  wanted.format = AUDIO_F32SYS;
  wanted.channels = AudioSync::kChannels;
  wanted.samples = kSamples;
  wanted.callback = &Fill;
  wanted.userdata = this;
  SDL_AudioSpec got{};
  device_ = SDL_OpenAudioDevice(nullptr, 0, &wanted, &got, 0);
  if (device_ == 0) {
    const std::runtime_error error(SDL_GetError());
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    throw error;
  }
  SDL_PauseAudioDevice(device_, 0);
}

Speaker::~Speaker() {
  SDL_CloseAudioDevice(device_);
  SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

void Speaker::FrameShown(Time wall) {
  sync_.FrameShown(wall, Now());
}

void Speaker::Fill(void* self, Uint8* bytes, int length) {
  static_cast<Speaker*>(self)->sync_.Pull(
      {reinterpret_cast<float*>(bytes), static_cast<std::size_t>(length) / sizeof(float)},
      Now() + kLatency);
}

}  // namespace host
