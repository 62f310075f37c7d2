// A frame of a benchmark as FFmpeg's filters take it.
#pragma once

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

#include "bench/mosaic.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"

namespace bench {

// The picture as an AVFrame with memory of its own.
inline host::ffmpeg::Frame FrameOf(const Yv12Picture& picture) {
  host::ffmpeg::Frame frame = host::ffmpeg::MakeFrame();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = picture.width;
  frame->height = picture.height;
  host::ffmpeg::Check(av_frame_get_buffer(frame.get(), 0), "cannot make", "a frame");
  av_image_copy_plane(frame->data[0], frame->linesize[0], picture.Y(), picture.width, picture.width,
                      picture.height);
  for (const int plane : {1, 2}) {
    av_image_copy_plane(frame->data[plane], frame->linesize[plane],
                        plane == 1 ? picture.U() : picture.V(), picture.width / 2,
                        picture.width / 2, picture.height / 2);
  }
  return frame;
}

}  // namespace bench
