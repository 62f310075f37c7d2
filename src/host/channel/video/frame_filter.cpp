#include "host/channel/video/frame_filter.h"

#include <new>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

AVFilterContext* Add(AVFilterGraph* graph, const char* filter, const char* name) {
  AVFilterContext* context = avfilter_graph_alloc_filter(graph, avfilter_get_by_name(filter), name);
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  return context;
}

// Links the description between source and sink.
void Parse(AVFilterGraph* graph, const std::string& description, AVFilterContext* source,
           AVFilterContext* sink) {
  AVFilterInOut* inputs = nullptr;
  AVFilterInOut* outputs = nullptr;
  int result = avfilter_graph_parse2(graph, description.c_str(), &inputs, &outputs);
  if (result >= 0 && (inputs == nullptr || outputs == nullptr)) {
    result = AVERROR(EINVAL);
  }
  if (result >= 0) {
    result = avfilter_link(source, 0, inputs->filter_ctx, static_cast<unsigned>(inputs->pad_idx));
  }
  if (result >= 0) {
    result = avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx), sink, 0);
  }
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  ffmpeg::Check(result, "cannot build the picture filter", description);
}

}  // namespace

FrameFilter::FrameFilter(const AVFrame& like, const std::string& description)
    : graph_(avfilter_graph_alloc()) {
  if (!graph_) {
    throw std::bad_alloc();
  }
  // Many channels share few processors: each filters on its own thread only.
  graph_->nb_threads = 1;
  source_ = Add(graph_.get(), "buffer", "in");
  sink_ = Add(graph_.get(), "buffersink", "out");

  AVBufferSrcParameters* parameters = av_buffersrc_parameters_alloc();
  if (parameters == nullptr) {
    throw std::bad_alloc();
  }
  parameters->format = like.format;
  parameters->width = like.width;
  parameters->height = like.height;
  parameters->sample_aspect_ratio = like.sample_aspect_ratio;
  parameters->time_base = ffmpeg::kTimeUnit;
  int result = av_buffersrc_parameters_set(source_, parameters);
  av_free(parameters);
  ffmpeg::Check(result, "cannot build the picture filter", description);
  ffmpeg::Check(avfilter_init_str(source_, nullptr), "cannot build the picture filter",
                description);
  ffmpeg::Check(avfilter_init_str(sink_, nullptr), "cannot build the picture filter", description);
  Parse(graph_.get(), description, source_, sink_);
  ffmpeg::Check(avfilter_graph_config(graph_.get(), nullptr), "cannot build the picture filter",
                description);
}

FrameFilter::~FrameFilter() = default;

void FrameFilter::Receive(const FrameSink& sink) {
  for (;;) {
    ffmpeg::Frame frame = ffmpeg::MakeFrame();
    const int result = av_buffersink_get_frame(sink_, frame.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
      return;
    }
    ffmpeg::Check(result, "cannot filter a picture");
    frame->pts = av_rescale_q(frame->pts, av_buffersink_get_time_base(sink_), ffmpeg::kTimeUnit);
    sink(std::move(frame));
  }
}

void FrameFilter::Push(ffmpeg::Frame frame, const FrameSink& sink) {
  ffmpeg::Check(av_buffersrc_add_frame(source_, frame.get()), "cannot filter a picture");
  Receive(sink);
}

void FrameFilter::Finish(const FrameSink& sink) {
  ffmpeg::Check(av_buffersrc_add_frame(source_, nullptr), "cannot filter a picture");
  Receive(sink);
}

}  // namespace host
