// A whole wall: 16 channels demultiplexed, decoded, scaled, composed and encoded with the preset
// "veryfast", audio passed on, in processor time for each composed frame. Beside it, in turns in
// one run and with the same settings of the encoder: FFmpeg's graph for the same wall (scale,
// drawtext, xstack, audio copied), GStreamer's compositor where it is installed, and the floor: the
// same streams decoded, side by side as in a wall and once one by one, and the same mosaic encoded,
// with nothing in between. Each is a process of its own and runs several times; the median counts.
//
//   pipeline [--runs N] [--channels N] [--ffmpeg COMMAND] CLIP ...
//
// The clips are of one size and 25 frames per second; bench/run pipeline makes them. Besides, one
// channel is taken apart for the share of each stage, and its windows are compared with full
// decoding, frame by frame.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/audio/level_meter.h"
#include "host/channel/source/media_reader.h"
#include "host/channel/video/frame_converter.h"
#include "host/channel/video/frame_meter.h"
#include "host/ffmpeg/error.h"
#include "host/output/video_encoder.h"
#include "host/session/wall_outputs.h"
#include "host/session/wall_session.h"
#include "log/log_perf.h"
#include "platform/os/process.h"

namespace {

using namespace host;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr Ratio kRate{25, 1};

struct Options {
  int runs = 3;
  int channels = 16;
  std::string ffmpeg = "ffmpeg";
  std::vector<std::string> clips;

  int columns() const { return static_cast<int>(std::ceil(std::sqrt(channels))); }
  config::Window WindowOf(int channel) const {
    const int rows = (channels + columns() - 1) / columns();
    const int width = kWidth / columns() / 2 * 2;
    const int height = kHeight / rows / 2 * 2;
    config::Window window;
    window.x = channel % columns() * width;
    window.y = channel / columns() * height;
    window.width = width;
    window.height = height;
    return window;
  }
  const std::string& ClipOf(int channel) const {
    return clips[static_cast<std::size_t>(channel) % clips.size()];
  }
};

class Silent final : public ChannelObserver, public OutputObserver {
 public:
  void ChannelOpened(const std::string&, const MediaInfo&) override {}
  void ChannelEnded(const std::string&) override {}
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds>) override {
    std::fprintf(stderr, "%s: %s\n", channel.c_str(), reason.c_str());
  }
  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<std::chrono::milliseconds>) override {
    std::fprintf(stderr, "%s: %s\n", output.c_str(), reason.c_str());
  }
  void OutputOpened(const std::string&, const std::string&, Opening) override {}
  void OutputSaid(const std::string&, const std::string&) override {}
};

config::Wall WallOf(const Options& options) {
  config::Wall wall;
  wall.canvas.width = kWidth;
  wall.canvas.height = kHeight;
  wall.canvas.frameRate = kRate;
  for (int i = 0; i < options.channels; ++i) {
    config::Channel channel;
    channel.name = "Channel " + std::to_string(i + 1);
    channel.source = options.ClipOf(i);
    channel.window = options.WindowOf(i);
    channel.label.source = config::Label::Source::kText;
    channel.label.text = channel.name;
    wall.channels.push_back(std::move(channel));
  }
  config::Output output;
  output.url = "/dev/null";
  output.format = "mpegts";
  output.overwrite = true;
  wall.outputs.push_back(std::move(output));
  return wall;
}

// Ignores what the composer logs.
class Quiet final : public qorp::log::DummyLogPerf {
 public:
  [[gnu::format(printf, 3, 4)]] void log(std::int32_t, const char*, ...) override {}
};

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

double CpuOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// ---- what a process of its own does

void Render(const Options& options, DecodeStep step, const std::string& raw) {
  os::KeepLargeBlocksOutOfHeap();  // as the program does
  Silent observer;
  WallSession::Settings settings;
  settings.wall = WallOf(options);
  settings.composerLibrary = TAVREL_COMPOSER_LIBRARY;
  settings.observer = &observer;
  settings.outputObserver = &observer;
  settings.renderStep = step;
  Quiet logger;
  settings.logger = &logger;
  std::ofstream file;
  if (!raw.empty()) {
    file.open(raw, std::ios::binary);
    settings.takeFrame = [&file](const ComPtr<IMediaSample>& frame, Time) {
      BYTE* pixels = nullptr;
      frame->GetPointer(&pixels);
      file.write(reinterpret_cast<const char*>(pixels), frame->GetActualDataLength());
    };
  }
  WallSession session(settings);
  session.Render({});
  session.Finish();
}

// Decodes one clip with nothing else.
void DecodeAlone(const std::string& clip) {
  AVFormatContext* opened = nullptr;
  ffmpeg::Check(avformat_open_input(&opened, clip.c_str(), nullptr, nullptr), "cannot open", clip);
  const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> input(
      opened, [](AVFormatContext* context) { avformat_close_input(&context); });
  ffmpeg::Check(avformat_find_stream_info(opened, nullptr), "cannot read", clip);
  const int stream = av_find_best_stream(opened, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  ffmpeg::Check(stream, "no video in", clip);
  const AVCodecParameters* const parameters = opened->streams[stream]->codecpar;
  const AVCodec* const decoder = avcodec_find_decoder(parameters->codec_id);
  const ffmpeg::Codec codec(avcodec_alloc_context3(decoder));
  avcodec_parameters_to_context(codec.get(), parameters);
  codec->thread_count = 1;
  ffmpeg::Check(avcodec_open2(codec.get(), decoder, nullptr), "cannot decode", clip);
  const ffmpeg::Packet packet = ffmpeg::MakePacket();
  const ffmpeg::Frame frame = ffmpeg::MakeFrame();
  bool more = true;
  while (more) {
    more = av_read_frame(opened, packet.get()) >= 0;
    if (!more || packet->stream_index == stream) {
      avcodec_send_packet(codec.get(), more ? packet.get() : nullptr);
      while (avcodec_receive_frame(codec.get(), frame.get()) >= 0) {
      }
    }
    av_packet_unref(packet.get());
  }
}

// The decoders as they are, then the encoder on the mosaic of a full wall. Reading that is not
// part of it: what it costs is printed, to be taken off. sideBySide: all at the same time, as a
// wall has to decode them; otherwise one after the other, each with the processor's caches for
// itself.
void Floor(const Options& options, const std::string& raw, bool sideBySide) {
  std::vector<std::future<void>> decoders;
  for (int i = 0; i < options.channels; ++i) {
    decoders.push_back(std::async(sideBySide ? std::launch::async : std::launch::deferred,
                                  DecodeAlone, options.ClipOf(i)));
  }
  for (std::future<void>& each : decoders) {
    each.get();
  }
  const config::Wall wall = WallOf(options);
  VideoEncoder encoder(EncoderOf(wall.canvas, wall.outputs[0], false));
  std::vector<std::uint8_t> picture(static_cast<std::size_t>(kWidth) * kHeight * 3 / 2);
  std::ifstream file(raw, std::ios::binary);
  double reading = 0;
  for (Time frame = 0;; ++frame) {
    const double begun = CpuOf(CLOCK_THREAD_CPUTIME_ID);
    const bool isRead = static_cast<bool>(
        file.read(reinterpret_cast<char*>(picture.data()), static_cast<long>(picture.size())));
    reading += CpuOf(CLOCK_THREAD_CPUTIME_ID) - begun;
    if (!isRead) {
      break;
    }
    encoder.Encode(picture, FrameStart(frame, kRate), [](const ffmpeg::Packet&) {});
  }
  encoder.Finish([](const ffmpeg::Packet&) {});
  std::printf("%f\n", reading);
}

// ---- other programs for the same wall

std::string Quoted(const std::string& text) {
  return "'" + text + "'";
}

std::string FfmpegCommand(const Options& options) {
  std::string inputs, graph, stack, layout, maps;
  for (int i = 0; i < options.channels; ++i) {
    const config::Window window = options.WindowOf(i);
    const std::string number = std::to_string(i);
    inputs += " -i " + Quoted(options.ClipOf(i));
    graph += "[" + number + ":v]scale=" + std::to_string(window.width) + ":" +
             std::to_string(window.height) +
             ",drawtext=fontfile=" TAVREL_LABEL_FONT ":text=Channel" + number +
             ":fontsize=24:fontcolor=white:x=(w-tw)/2:y=h-th-8[w" + number + "];";
    stack += "[w" + number + "]";
    layout += (i == 0 ? "" : "|") + std::to_string(window.x) + "_" + std::to_string(window.y);
    maps += " -map " + number + ":a";
  }
  graph +=
      stack + "xstack=inputs=" + std::to_string(options.channels) + ":layout=" + layout + "[out]";
  return options.ffmpeg + " -v error -y" + inputs + " -filter_complex " + Quoted(graph) +
         " -map '[out]'" + maps +
         " -c:a copy -c:v libx264 -preset veryfast -crf 20 -g 50 -flags +cgop -r 25 -f mpegts "
         "/dev/null";
}

std::string GstreamerCommand(const Options& options) {
  std::string command = "gst-launch-1.0 -q compositor name=c background=black";
  for (int i = 0; i < options.channels; ++i) {
    const config::Window window = options.WindowOf(i);
    const std::string pad = " sink_" + std::to_string(i) + "::";
    command += pad + "xpos=" + std::to_string(window.x) + pad + "ypos=" + std::to_string(window.y) +
               pad + "width=" + std::to_string(window.width) + pad +
               "height=" + std::to_string(window.height);
  }
  command +=
      " ! video/x-raw,format=I420,width=1920,height=1080,framerate=25/1"
      " ! x264enc speed-preset=veryfast pass=qual quantizer=20 key-int-max=50"
      " ! mpegtsmux ! fakesink sync=false";
  for (int i = 0; i < options.channels; ++i) {
    command +=
        " filesrc location=" + Quoted(options.ClipOf(i)) +
        " ! qtdemux ! h264parse ! avdec_h264 max-threads=1 ! textoverlay text=Channel ! c.sink_" +
        std::to_string(i);
  }
  return command;
}

// ---- measuring

struct Cost {
  double cpu = 0;     // seconds
  double faults = 0;  // pages
};

// Runs it as a process of its own, which prints the number of seconds to subtract.
Cost RunApart(const std::function<void()>& body) {
  std::array<int, 2> pipe{};
  if (::pipe(pipe.data()) != 0) {
    throw std::runtime_error("no pipe");
  }
  std::fflush(stdout);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(pipe[1], 1);
    ::close(pipe[0]);
    try {
      body();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "pipeline: %s\n", error.what());
      ::_exit(1);
    }
    std::fflush(stdout);
    ::_exit(0);
  }
  ::close(pipe[1]);
  std::string printed;
  std::array<char, 64> part{};
  for (ssize_t got = 0; (got = ::read(pipe[0], part.data(), part.size())) > 0;) {
    printed.append(part.data(), static_cast<std::size_t>(got));
  }
  ::close(pipe[0]);
  int status = 0;
  rusage usage{};
  if (::wait4(child, &status, 0, &usage) != child || status != 0) {
    throw std::runtime_error("a measured process failed");
  }
  return {Seconds(usage.ru_utime) + Seconds(usage.ru_stime) - std::atof(printed.c_str()),
          static_cast<double>(usage.ru_minflt)};
}

void RunCommand(const std::string& command) {
  ::execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
  throw std::runtime_error("no shell");
}

template <typename Value>
Value MedianOf(std::vector<Value> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// ---- one channel taken apart

using Windows = std::map<Time, std::vector<std::uint8_t>>;

struct Stages {
  double demultiplex = 0;
  double decode = 0;  // of video and audio
  double scale = 0;
  double meter = 0;
  double levels = 0;
  Windows windows;
};

Stages TakeApart(const Options& options, DecodeStep step) {
  const auto now = [] { return CpuOf(CLOCK_THREAD_CPUTIME_ID); };
  Stages stages;
  AVFormatContext* opened = nullptr;
  double begun = now();
  ffmpeg::Check(avformat_open_input(&opened, options.ClipOf(0).c_str(), nullptr, nullptr),
                "cannot open", options.ClipOf(0));
  const ffmpeg::Packet packet = ffmpeg::MakePacket();
  while (av_read_frame(opened, packet.get()) >= 0) {
    av_packet_unref(packet.get());
  }
  avformat_close_input(&opened);
  stages.demultiplex = now() - begun;

  const config::Wall wall = WallOf(options);
  const config::Window window = options.WindowOf(0);
  MediaSettings settings;
  settings.source = options.ClipOf(0);
  MediaReader reader(std::move(settings));
  reader.Open();
  reader.SetStep(step);
  FrameConverter converter({window.width, window.height, kRate, wall.canvas.pixelAspect(), {}});
  FrameMeter frameMeter(wall.channels[0].options.alarm);
  LevelMeter levels{{}};
  SamplePlanes planes;
  std::vector<std::uint8_t> pixels(converter.bufferSize());
  for (;;) {
    begun = now();
    MediaItem item = reader.Read();
    stages.decode += now() - begun;
    if (std::holds_alternative<EndOfMedia>(item)) {
      break;
    }
    if (auto* const picture = std::get_if<DecodedFrame>(&item)) {
      begun = now();
      converter.Push(std::move(*picture));
      while (const FrameConverter::FrameTimes* const next = converter.Next()) {
        const Time start = next->start;
        converter.Write(pixels);
        stages.scale += now() - begun;
        begun = now();
        frameMeter.Measure(pixels.data(), window.width, window.height);
        stages.meter += now() - begun;
        stages.windows[start] = pixels;
        begun = now();
      }
    } else if (auto* const samples = std::get_if<AudioSamples>(&item)) {
      begun = now();
      const AVFrame& frame = *samples->frame;
      levels.Push(planes.Convert(frame), frame.nb_samples, frame.sample_rate, samples->start,
                  [](const LevelMeter::Reading&) {});
      stages.levels += now() - begun;
    }
  }
  stages.decode -= stages.demultiplex;
  return stages;
}

// Of the frames that both have.
double PsnrOf(const Windows& windows, const Windows& full) {
  double sum = 0;
  double count = 0;
  for (const auto& [start, pixels] : windows) {
    const std::vector<std::uint8_t>& reference = full.at(start);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
      const double difference = static_cast<double>(pixels[i]) - reference[i];
      sum += difference * difference;
    }
    count += static_cast<double>(pixels.size());
  }
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * count / sum);
}

// What a live wall does by these settings, where windows are at most half as large as the source.
struct Setting {
  const char* name;
  DecodeStep step;
};
constexpr Setting kSettings[] = {{"full", DecodeStep::kFull},
                                 {"auto", DecodeStep::kUnreferencedUnfiltered},
                                 {"economy", DecodeStep::kReferencedOnly}};

void Measure(const Options& options) {
  const std::string raw =
      (std::filesystem::temp_directory_path() / ("pipeline-" + std::to_string(::getpid()) + ".yuv"))
          .string();
  struct Removal {
    const std::string& name;
    ~Removal() { std::filesystem::remove(name); }
  } removal{raw};
  RunApart([&] { Render(options, DecodeStep::kFull, raw); });
  const double frames = static_cast<double>(std::filesystem::file_size(raw)) /
                        (static_cast<double>(kWidth) * kHeight * 3 / 2);

  struct Variant {
    std::string name;
    std::function<void()> run;
    std::vector<double> cpu;
    std::vector<double> faults;
  };
  std::vector<Variant> variants;
  variants.push_back({"floor", [&] { Floor(options, raw, true); }, {}, {}});
  variants.push_back({"one by one", [&] { Floor(options, raw, false); }, {}, {}});
  for (const Setting& setting : kSettings) {
    variants.push_back({setting.name, [&, setting] { Render(options, setting.step, {}); }, {}, {}});
  }
  variants.push_back({"FFmpeg", [&] { RunCommand(FfmpegCommand(options)); }, {}, {}});
  if (std::system("command -v gst-launch-1.0 >/dev/null") == 0) {
    variants.push_back({"GStreamer", [&] { RunCommand(GstreamerCommand(options)); }, {}, {}});
  }
  for (int run = 0; run < options.runs; ++run) {
    for (Variant& variant : variants) {
      const Cost cost = RunApart(variant.run);
      variant.cpu.push_back(cost.cpu / frames);
      variant.faults.push_back(cost.faults / frames);
    }
  }
  const auto costOf = [&](const std::string& name) {
    for (const Variant& variant : variants) {
      if (variant.name == name) {
        return MedianOf(variant.cpu);
      }
    }
    return 0.0;
  };
  std::printf("%d channels, %.0f frames of %dx%d, median of %d runs\n\n", options.channels, frames,
              kWidth, kHeight, options.runs);
  std::printf("%-10s %16s %8s %9s %18s\n", "", "CPU ms per frame", "x floor", "x FFmpeg",
              "page faults/frame");
  for (const Variant& variant : variants) {
    const double cpu = MedianOf(variant.cpu);
    std::printf("%-10s %16.1f %8.2f %9.2f %18.0f\n", variant.name.c_str(), 1000 * cpu,
                cpu / costOf("floor"), cpu / costOf("FFmpeg"), MedianOf(variant.faults));
  }

  std::printf("\n%-10s %12s %8s %8s %8s %8s %10s %10s\n", "share of", "demultiplex", "decode",
              "scale", "meter", "levels", "remainder", "PSNR dB");
  Windows full;
  for (const Setting& setting : kSettings) {
    Stages stages = TakeApart(options, setting.step);
    if (setting.step == DecodeStep::kFull) {
      full = stages.windows;
    }
    const double all = costOf(setting.name) * frames / options.channels;
    const double sum =
        stages.demultiplex + stages.decode + stages.scale + stages.meter + stages.levels;
    const auto percent = [&](double part) { return 100 * part / all; };
    std::printf("%-10s %11.1f%% %7.1f%% %7.1f%% %7.1f%% %7.1f%% %9.1f%% %10.1f\n", setting.name,
                percent(stages.demultiplex), percent(stages.decode), percent(stages.scale),
                percent(stages.meter), percent(stages.levels), percent(all - sum),
                PsnrOf(stages.windows, full));
  }
  std::printf("\nremainder: composing, encoding, muxing, and handing on\n");
}

Options Parse(int count, char** words) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    if (word.starts_with("--") && i + 1 < count) {
      const std::string value = words[++i];
      if (word == "--runs") {
        options.runs = std::max(1, std::atoi(value.c_str()));
      } else if (word == "--channels") {
        options.channels = std::clamp(std::atoi(value.c_str()), 1, 64);
      } else if (word == "--ffmpeg") {
        options.ffmpeg = value;
      } else {
        throw std::invalid_argument("unknown option " + word);
      }
    } else {
      options.clips.push_back(word);
    }
  }
  if (options.clips.empty()) {
    throw std::invalid_argument(
        "usage: pipeline [--runs N] [--channels N] [--ffmpeg COMMAND] CLIP ...");
  }
  return options;
}

}  // namespace

int main(int count, char** words) {
  ffmpeg::RouteLog(ffmpeg::LogLevel::kError, nullptr);
  try {
    Measure(Parse(count, words));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "pipeline: %s\n", error.what());
    return 1;
  }
}
