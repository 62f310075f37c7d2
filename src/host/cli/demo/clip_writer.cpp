#include "host/cli/demo/clip_writer.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavutil/frame.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"
#include "host/output/muxer.h"
#include "platform/os/mutex.h"

namespace host {
namespace {

// A chain of FFmpeg's filters that generates video or audio. Works on the calling thread alone.
class FilterSource {
 public:
  enum class Kind { kPictures, kAudio };

  // Throws ffmpeg::Error when the chain is not valid.
  FilterSource(Kind kind, const std::string& chain);

  // The next frame, its pts in timeBase(); null at the end of a chain that ends.
  ffmpeg::Frame Next();
  AVRational timeBase() const;
  AVRational frameRate() const;  // of video
  // Gives an encoder the sample format, rate and layout of the audio.
  void DescribeAudio(AVCodecContext& codec) const;
  // Audio frames from now on have this many samples, as many encoders demand.
  void SetSamplesPerFrame(int samples);

 private:
  ffmpeg::FilterGraph graph_;
  AVFilterContext* sink_ = nullptr;  // owned by graph_
};

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
    result = AVERROR(EINVAL);  // it needs an input, or has not exactly one output
  }
  if (result >= 0) {
    result = avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx), sink_, 0);
  }
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  ffmpeg::Check(result, "cannot make", chain);
  ffmpeg::Check(avfilter_graph_config(graph_.get(), nullptr), "cannot make", chain);
}

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

const AVCodec* EncoderNamed(const std::string& name) {
  const AVCodec* const encoder = ffmpeg::FindEncoder(name);
  if (encoder == nullptr) {
    throw ffmpeg::Error(AVERROR_ENCODER_NOT_FOUND, "cannot encode as", name);
  }
  return encoder;
}

// A sample format that the encoder takes; the chain's own when it does.
AVSampleFormat SampleFormat(const AVCodec& encoder) {
  return encoder.sample_fmts != nullptr ? encoder.sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
}

// One stream of the clip: frames from the filters, packets into the muxer. The encoder takes
// size, format and colours from the first frame.
class ClipStream {
 public:
  ClipStream(FilterSource::Kind kind, const std::string& chain, const std::string& codec,
             const std::map<std::string, std::string>& options, bool globalHeader)
      : encoder_(EncoderNamed(codec)),
        source_(kind, kind == FilterSource::Kind::kPictures
                          ? chain
                          : chain + ",aformat=sample_fmts=" +
                                av_get_sample_fmt_name(SampleFormat(*encoder_))) {
    codec_.reset(avcodec_alloc_context3(encoder_));
    if (!codec_) {
      throw std::bad_alloc();
    }
    if (kind == FilterSource::Kind::kPictures) {
      ahead_ = source_.Next();
      if (!ahead_) {
        throw ffmpeg::Error(AVERROR_EOF, "nothing comes out of", chain);
      }
      DescribeFrames();
    } else {
      source_.DescribeAudio(*codec_);
    }
    codec_->thread_count = 1;
    if (globalHeader) {
      codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    ffmpeg::Options dictionary;
    for (const auto& [key, value] : options) {
      dictionary.Set(key.c_str(), value);
    }
    ffmpeg::Check(avcodec_open2(codec_.get(), encoder_, dictionary.Exchange()),
                  "cannot start the encoder", encoder_->name);
    if (kind == FilterSource::Kind::kAudio) {
      if (codec_->frame_size > 0) {
        source_.SetSamplesPerFrame(codec_->frame_size);
      }
      ahead_ = source_.Next();
    }
  }

  ffmpeg::Parameters parameters() const {
    ffmpeg::Parameters parameters = ffmpeg::MakeParameters();
    ffmpeg::Check(avcodec_parameters_from_context(parameters.get(), codec_.get()),
                  "cannot describe the encoded stream");
    return parameters;
  }
  Ratio frameRate() const { return {codec_->framerate.num, codec_->framerate.den}; }

  // Time of the frame that Advance encodes next, none when the clip is long enough.
  std::optional<Time> NextTime(Time length) const {
    if (!ahead_) {
      return {};
    }
    const Time time = av_rescale_q(ahead_->pts, source_.timeBase(), ffmpeg::kTimeUnit);
    return time < length ? std::optional<Time>(time) : std::nullopt;
  }

  void Advance(Muxer& muxer, std::size_t track) {
    ahead_->pts = av_rescale_q(ahead_->pts, source_.timeBase(), codec_->time_base);
    ahead_->pict_type = AV_PICTURE_TYPE_NONE;
    ffmpeg::Check(avcodec_send_frame(codec_.get(), ahead_.get()), "cannot encode a frame");
    Receive(muxer, track);
    ahead_ = source_.Next();
  }

  void Finish(Muxer& muxer, std::size_t track) {
    ffmpeg::Check(avcodec_send_frame(codec_.get(), nullptr), "cannot finish encoding");
    Receive(muxer, track);
  }

 private:
  void DescribeFrames() {
    codec_->width = ahead_->width;
    codec_->height = ahead_->height;
    codec_->pix_fmt = static_cast<AVPixelFormat>(ahead_->format);
    codec_->sample_aspect_ratio = ahead_->sample_aspect_ratio;
    codec_->color_range = ahead_->color_range;
    codec_->colorspace = ahead_->colorspace;
    codec_->color_primaries = ahead_->color_primaries;
    codec_->color_trc = ahead_->color_trc;
    codec_->framerate = source_.frameRate();
    codec_->time_base = av_inv_q(codec_->framerate);
    codec_->gop_size = 50;
  }

  void Receive(Muxer& muxer, std::size_t track) {
    for (;;) {
      ffmpeg::Packet packet = ffmpeg::MakePacket();
      const int result = avcodec_receive_packet(codec_.get(), packet.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
        return;
      }
      ffmpeg::Check(result, "cannot encode a frame");
      av_packet_rescale_ts(packet.get(), codec_->time_base, ffmpeg::kTimeUnit);
      muxer.Write(track, std::move(packet));
    }
  }

  const AVCodec* encoder_;
  FilterSource source_;
  ffmpeg::Codec codec_;
  ffmpeg::Frame ahead_;
};

}  // namespace

void WriteClip(const ClipRecipe& recipe, const std::filesystem::path& file) {
  Muxer::Settings settings;
  settings.url = file.string();
  settings.title = recipe.name;
  settings.options = recipe.containerOptions;
  Muxer muxer(settings);
  std::optional<ClipStream> video;
  std::optional<ClipStream> audio;
  std::size_t videoTrack = 0;
  std::size_t audioTrack = 0;
  if (!recipe.pictures.empty()) {
    auto options = recipe.videoOptions;
    if (recipe.videoCodec == "h264" || recipe.videoCodec == "libx264") {
      options.emplace("preset", "ultrafast");
    }
    video.emplace(FilterSource::Kind::kPictures, recipe.pictures, recipe.videoCodec, options,
                  muxer.wantsGlobalHeader());
    videoTrack = muxer.AddVideo(*video->parameters(), video->frameRate());
  }
  if (!recipe.audio.empty()) {
    audio.emplace(FilterSource::Kind::kAudio, recipe.audio, recipe.audioCodec, recipe.audioOptions,
                  muxer.wantsGlobalHeader());
    audioTrack = muxer.AddAudio(*audio->parameters(), recipe.name, recipe.language);
  }
  muxer.Start();
  for (;;) {
    const std::optional<Time> videoTime = video ? video->NextTime(recipe.length) : std::nullopt;
    const std::optional<Time> audioTime = audio ? audio->NextTime(recipe.length) : std::nullopt;
    if (videoTime && (!audioTime || *videoTime <= *audioTime)) {
      video->Advance(muxer, videoTrack);
    } else if (audioTime) {
      audio->Advance(muxer, audioTrack);
    } else {
      break;
    }
  }
  if (video) {
    video->Finish(muxer, videoTrack);
  }
  if (audio) {
    audio->Finish(muxer, audioTrack);
  }
  muxer.Finish();
}

std::vector<std::filesystem::path> WriteClips(const std::vector<ClipRecipe>& recipes,
                                              const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  std::vector<std::filesystem::path> files;
  for (std::size_t i = 0; i < recipes.size(); ++i) {
    const std::string number = std::to_string(i + 1);
    files.push_back(folder / ((number.size() < 2 ? "0" + number : number) + "-" + recipes[i].name +
                              recipes[i].extension));
  }

  std::atomic<std::size_t> next{0};
  os::Mutex failureLock;
  std::exception_ptr failure;  // under failureLock
  const auto work = [&] {
    for (std::size_t i = next++; i < recipes.size(); i = next++) {
      try {
        WriteClip(recipes[i], files[i]);
      } catch (...) {
        const os::MutexLock guard(failureLock);
        failure = failure ? failure : std::current_exception();
      }
    }
  };
  std::vector<std::thread> threads;
  const std::size_t helpers =
      std::min<std::size_t>(std::max(std::thread::hardware_concurrency(), 1U), recipes.size());
  for (std::size_t i = 1; i < helpers; ++i) {
    threads.emplace_back(work);
  }
  work();
  for (std::thread& thread : threads) {
    thread.join();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
  return files;
}

}  // namespace host
