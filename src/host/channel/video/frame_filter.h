// FrameFilter: a chain of FFmpeg's frame filters, for deinterlacing, turning and wide colours.
#pragma once

#include <functional>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVFilterContext;

namespace host {

// Takes frames of one size, format and pixel aspect; frames have their start in pts, in units of
// 100 ns. Works on the calling thread only. Owned by one FrameConverter.
class FrameFilter {
 public:
  using FrameSink = std::function<void(ffmpeg::Frame)>;

  // description: FFmpeg's notation, for example "bwdif=mode=send_frame". Throws ffmpeg::Error.
  FrameFilter(const AVFrame& like, const std::string& description);
  ~FrameFilter();

  // Hands every frame that is ready to the sink. Throws ffmpeg::Error.
  void Push(ffmpeg::Frame frame, const FrameSink& sink);
  // Hands over what the filters hold back; nothing may be pushed afterwards.
  void Finish(const FrameSink& sink);

 private:
  void Receive(const FrameSink& sink);

  ffmpeg::FilterGraph graph_;
  AVFilterContext* source_ = nullptr;  // owned by graph_
  AVFilterContext* sink_ = nullptr;    // owned by graph_
};

}  // namespace host
