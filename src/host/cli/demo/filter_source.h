// A chain of FFmpeg's filters that makes pictures or audio from nothing.
#pragma once

#include <string>

#include "host/ffmpeg/handles.h"

struct AVCodecContext;
struct AVFilterContext;
struct AVRational;

namespace host {

// Owned and called by one clip writer on its thread; works on that thread alone.
class FilterSource {
 public:
  enum class Kind { kPictures, kAudio };

  // Throws ffmpeg::Error when the chain is not valid.
  FilterSource(Kind kind, const std::string& chain);
  ~FilterSource();

  // The next frame, its pts in timeBase(); null at the end of a chain that ends.
  ffmpeg::Frame Next();
  AVRational timeBase() const;
  AVRational frameRate() const;  // of pictures
  // Gives an encoder the sample format, rate and layout of the audio.
  void DescribeAudio(AVCodecContext& codec) const;
  // Audio frames from now on have this many samples, as many encoders demand.
  void SetSamplesPerFrame(int samples);

 private:
  ffmpeg::FilterGraph graph_;
  AVFilterContext* sink_ = nullptr;  // owned by graph_
};

}  // namespace host
