// The same wall drawn by FFmpeg's filters: 16 frames laid over a background, a text under each and
// a box around two of them. Meters are left out, for which there is no filter; ours has them. Both
// get their frames from memory, draw into the background's own buffer, use one thread and are
// measured in turns, in processor time.
//
//   compose_peers [FRAMES]
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include "bench/frame_of.h"
#include "bench/mosaic.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"
#include "render/label_font.h"

namespace {

using bench::Nanoseconds;
namespace ffmpeg = host::ffmpeg;

constexpr const char* kFont = TAVREL_LABEL_FONT;

class FilteredMosaic {
 public:
  FilteredMosaic(const bench::Workload& workload, const bench::Mosaic& ours)
      : graph_(avfilter_graph_alloc()) {
    bench::PictureRing canvases(workload.canvasWidth, workload.canvasHeight, 4, 1);
    for (std::size_t i = 0; i < 4; ++i) {
      canvases_.push_back(bench::FrameOf(canvases.At(i)));
    }
    windows_.resize(static_cast<std::size_t>(workload.Windows()));
    for (std::int32_t i = 0; i < workload.Windows(); ++i) {
      bench::PictureRing ring(workload.windowWidth, workload.windowHeight, 3, 2 + i);
      for (std::size_t k = 0; k < 3; ++k) {
        windows_[i].push_back(bench::FrameOf(ring.At(k)));
      }
    }
    MakeGraph(workload, ours);
  }

  // One frame: every source gets its frame and the sink gives the composed one. The overlay filter
  // draws on a copy of its input, whether or not anything else refers to it.
  Nanoseconds Compose() {
    ++frame_;
    const auto pts = static_cast<std::int64_t>(frame_);
    const ffmpeg::Frame composed = ffmpeg::MakeFrame();
    const Nanoseconds start = bench::Now();
    Give(sources_[0], *canvases_[frame_ % canvases_.size()], pts);
    for (std::size_t i = 0; i < windows_.size(); ++i) {
      Give(sources_[1 + i], *windows_[i][frame_ % windows_[i].size()], pts);
    }
    ffmpeg::Check(av_buffersink_get_frame(sink_, composed.get()), "cannot draw", "a frame");
    return bench::Now() - start;
  }

 private:
  static void Give(AVFilterContext* source, AVFrame& picture, std::int64_t pts) {
    picture.pts = pts;
    ffmpeg::Check(av_buffersrc_add_frame_flags(source, &picture, AV_BUFFERSRC_FLAG_KEEP_REF),
                  "cannot draw", "a frame");
  }
  static std::string Source(const std::string& name, std::int32_t width, std::int32_t height) {
    return "buffer@" + name + "=video_size=" + std::to_string(width) + "x" +
           std::to_string(height) + ":pix_fmt=yuv420p:time_base=1/25:pixel_aspect=1/1[" + name +
           "];";
  }

  void MakeGraph(const bench::Workload& workload, const bench::Mosaic& ours) {
    const std::int32_t points = LabelFontSize(workload.canvasHeight);
    const std::string pixels = std::to_string(points * 4 / 3);
    std::string chain = Source("bg", workload.canvasWidth, workload.canvasHeight);
    std::string joined = "[bg]";
    std::string texts;
    for (std::int32_t i = 0; i < workload.Windows(); ++i) {
      const std::string name = "w" + std::to_string(i);
      const std::string x = std::to_string(workload.X(i));
      chain += Source(name, workload.windowWidth, workload.windowHeight);
      joined += "[" + name + "]overlay=x=" + x + ":y=" + std::to_string(workload.Y(i)) +
                ":eval=init:format=yuv420[o" + std::to_string(i) + "];[o" + std::to_string(i) + "]";
      texts += "drawtext=fontfile=" + std::string(kFont) + ":text='" + ours.LabelText(i) +
               "':fontsize=" + pixels + ":fontcolor=white:x=" + x + "+(" +
               std::to_string(workload.windowWidth) + "-text_w)/2:y=" +
               std::to_string(workload.Y(i) + workload.windowHeight + points / 4) + ",";
    }
    std::string boxes;
    for (const std::int32_t i : {0, workload.Windows() / 2}) {
      boxes += "drawbox=x=" + std::to_string(workload.X(i)) +
               ":y=" + std::to_string(workload.Y(i)) +
               ":w=" + std::to_string(workload.windowWidth) +
               ":h=" + std::to_string(workload.windowHeight) +
               ":color=red:t=" + std::to_string(workload.canvasHeight / 150) + ",";
    }
    chain += joined + texts + boxes + "buffersink@out";

    graph_->nb_threads = 1;
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    const int result = avfilter_graph_parse2(graph_.get(), chain.c_str(), &inputs, &outputs);
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    ffmpeg::Check(result, "cannot make", chain);
    ffmpeg::Check(avfilter_graph_config(graph_.get(), nullptr), "cannot make", chain);
    sources_.push_back(Find("buffer@bg"));
    for (std::int32_t i = 0; i < workload.Windows(); ++i) {
      sources_.push_back(Find("buffer@w" + std::to_string(i)));
    }
    sink_ = Find("buffersink@out");
  }

  AVFilterContext* Find(const std::string& name) {
    AVFilterContext* const filter = avfilter_graph_get_filter(graph_.get(), name.c_str());
    if (filter == nullptr) {
      throw std::runtime_error("no filter " + name);
    }
    return filter;
  }

  std::unique_ptr<AVFilterGraph, ffmpeg::FreeFilterGraph> graph_;
  std::vector<AVFilterContext*> sources_;  // the background's, then the windows'
  AVFilterContext* sink_ = nullptr;
  std::vector<ffmpeg::Frame> canvases_;
  std::vector<std::vector<ffmpeg::Frame>> windows_;
  std::size_t frame_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::max(std::atoi(argv[1]), 1) : 300;
  const bench::Workload& workload = bench::kWorkloads[1];
  bench::Mosaic ours(workload);
  FilteredMosaic theirs(workload, ours);
  std::vector<Nanoseconds> oursTimes;
  std::vector<Nanoseconds> theirsTimes;
  for (int i = 0; i < frames + 20; ++i) {
    const Nanoseconds filtered = theirs.Compose();
    const Nanoseconds drawn = ours.Compose();
    if (i >= 20) {  // before that, pages are touched and tables filled
      theirsTimes.push_back(filtered);
      oursTimes.push_back(drawn);
    }
  }
  const Nanoseconds filtered = bench::Median(theirsTimes);
  const Nanoseconds drawn = bench::Median(oursTimes);
  std::printf(
      "W16, processor time of a frame, median of %d: ours %.0f us, FFmpeg's filters %.0f us\n",
      frames, drawn / 1000, filtered / 1000);
  std::printf("ratio 1:%.1f, at least 1:5 wanted: %s\n", filtered / drawn,
              filtered >= 5 * drawn ? "ok" : "MISSED");
  return 0;
}
