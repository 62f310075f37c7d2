#include "host/cli/demo/filter_source.h"

#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavutil/frame.h>
}

#include "host/ffmpeg/error.h"

namespace host {

FilterSource::FilterSource(Kind kind, const std::string& chain) : graph_(avfilter_graph_alloc()) {
  if (!graph_) {
    throw std::bad_alloc();
  }
  graph_->nb_threads = 1;
  const char* const sink = kind == Kind::kPictures ? "buffersink" : "abuffersink";
  sink_ = avfilter_graph_alloc_filter(graph_.get(), avfilter_get_by_name(sink), "out");
  if (sink_ == nullptr) {
    throw std::bad_alloc();
  }
  ffmpeg::Check(avfilter_init_str(sink_, nullptr), "cannot make", chain);

  AVFilterInOut* inputs = nullptr;
  AVFilterInOut* outputs = nullptr;
  int result = avfilter_graph_parse2(graph_.get(), chain.c_str(), &inputs, &outputs);
  if (result >= 0 && (inputs != nullptr || outputs == nullptr || outputs->next != nullptr)) {
    result = AVERROR(EINVAL);  // it wants an input, or has not exactly one output
  }
  if (result >= 0) {
    result = avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx), sink_, 0);
  }
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  ffmpeg::Check(result, "cannot make", chain);
  ffmpeg::Check(avfilter_graph_config(graph_.get(), nullptr), "cannot make", chain);
}

FilterSource::~FilterSource() = default;

ffmpeg::Frame FilterSource::Next() {
  ffmpeg::Frame frame = ffmpeg::MakeFrame();
  const int result = av_buffersink_get_frame(sink_, frame.get());
  if (result == AVERROR_EOF) {
    return nullptr;
  }
  ffmpeg::Check(result, "cannot make a frame");
  return frame;
}

AVRational FilterSource::timeBase() const {
  return av_buffersink_get_time_base(sink_);
}

AVRational FilterSource::frameRate() const {
  return av_buffersink_get_frame_rate(sink_);
}

void FilterSource::DescribeAudio(AVCodecContext& codec) const {
  codec.sample_fmt = static_cast<AVSampleFormat>(av_buffersink_get_format(sink_));
  codec.sample_rate = av_buffersink_get_sample_rate(sink_);
  codec.time_base = {1, codec.sample_rate};
  ffmpeg::Check(av_buffersink_get_ch_layout(sink_, &codec.ch_layout), "cannot describe the audio");
}

void FilterSource::SetSamplesPerFrame(int samples) {
  av_buffersink_set_frame_size(sink_, static_cast<unsigned>(samples));
}

}  // namespace host
