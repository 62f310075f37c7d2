// Clips that flash and click at the same moments, and functions that find both in recordings.
#pragma once

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include "host/channel/audio/level_meter.h"
#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"
#include "host/output/muxer.h"
#include "tests/host/clips.h"
#include "tests/support/child_process.h"

namespace e2e {

struct FlashClip {
  std::string rate = "25";    // frames per second, "30000/1001"
  std::string codec = "aac";  // of the audio
  std::string sampleRate = "48000";
  int flashEvery = 25;  // frames; the third fifth of each period is a flash and a click
  int pictures = 150;
  int size = 32;  // pixels, both ways
  std::string language;
};

// Writes the clip; the name of the file decides the container.
inline void WriteFlashClip(const FlashClip& clip, const std::filesystem::path& file) {
  const host::Ratio rate = *host::config::ParseFrameRate(clip.rate);
  const std::string size = std::to_string(clip.size);
  const std::string every = std::to_string(clip.flashEvery);
  const std::string period =
      std::to_string(static_cast<double>(clip.flashEvery) * rate.den / rate.num);
  host::ClipRecipe recipe;
  recipe.name = file.stem().string();
  recipe.pictures = "color=black:size=" + size + "x" + size + ":rate=" + clip.rate +
                    ",format=yuv420p,geq=lum='if(between(mod(N," + every + ")*5,2*" + every +
                    ",3*" + every + "-1),220,40)':cb=128:cr=128";
  recipe.videoOptions = {{"preset", "ultrafast"}, {"qp", "10"}};
  recipe.audio = "aevalsrc='if(between(mod(t," + period + ")*5,2*" + period + ",3*" + period +
                 "),0.5*sin(2*PI*1000*t),0)':s=" + clip.sampleRate + ":c=mono";
  recipe.audioCodec = clip.codec;
  recipe.language = clip.language;
  recipe.length = host::FrameStart(clip.pictures, rate);
  host::WriteClip(recipe, file);
}

// Writes the packets of a file again, the audio `later` behind the video of the same time in the
// order of the mux (or, negative, before it); the timestamps stay. The name of the file decides the
// container.
inline void RemuxWithAudioLater(const std::filesystem::path& from, const std::filesystem::path& to,
                                host::Time later) {
  AVFormatContext* opened = nullptr;
  host::ffmpeg::Check(avformat_open_input(&opened, from.c_str(), nullptr, nullptr), "open");
  const host::ffmpeg::InputFormat input(opened);
  host::ffmpeg::Check(avformat_find_stream_info(opened, nullptr), "look at");
  host::Muxer::Settings settings;
  settings.url = to.string();
  settings.interleaves = false;
  host::Muxer muxer(settings);
  std::vector<std::pair<host::Time, host::ffmpeg::Packet>> packets;
  for (unsigned i = 0; i < opened->nb_streams; ++i) {
    const AVCodecParameters& parameters = *opened->streams[i]->codecpar;
    parameters.codec_type == AVMEDIA_TYPE_VIDEO ? muxer.AddVideo(parameters, {25, 1})
                                                : muxer.AddAudio(parameters, "", "");
  }
  for (auto packet = host::ffmpeg::MakePacket(); av_read_frame(opened, packet.get()) >= 0;
       packet = host::ffmpeg::MakePacket()) {
    const AVStream& stream = *opened->streams[packet->stream_index];
    av_packet_rescale_ts(packet.get(), stream.time_base, host::ffmpeg::kTimeUnit);
    const bool isAudio = stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    packets.emplace_back(packet->dts + (isAudio ? later : 0), std::move(packet));
  }
  std::stable_sort(packets.begin(), packets.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  muxer.Start();
  for (auto& [place, packet] : packets) {
    const auto track = static_cast<std::size_t>(packet->stream_index);
    muxer.Write(track, std::move(packet));
  }
  muxer.Finish();
}

inline host::MediaReader::Settings AudioOf(const std::filesystem::path& file, std::size_t track) {
  host::MediaReader::Settings settings = host::Source(file);
  settings.wantVideo = false;
  settings.options.audio.track = track;
  return settings;
}

// The compressed packets of a track of audio, counted from 1; times from the start of the file.
inline std::vector<host::AudioPacket> ReadPackets(const std::filesystem::path& file,
                                                  std::size_t track) {
  host::MediaReader::Settings settings = AudioOf(file, track);
  settings.decodeAudio = false;
  return host::ReadAll(*host::Opened(settings)).packets;
}
// Moments at which the frame becomes bright around each of the points.
struct Point {
  int x = 0;
  int y = 0;
};
inline std::vector<std::vector<host::Time>> FindFlashes(const std::filesystem::path& file,
                                                        const std::vector<Point>& points) {
  host::MediaReader::Settings settings = host::Source(file);
  settings.options.audio.enabled = false;
  std::vector<std::vector<host::Time>> flashes(points.size());
  std::vector<bool> bright(points.size(), true);  // so that a start within a flash does not count
  host::ReadEach(*host::Opened(settings), [&](const host::MediaItem& item) {
    const auto* const picture = std::get_if<host::DecodedFrame>(&item);
    for (std::size_t i = 0; picture != nullptr && i < points.size(); ++i) {
      const AVFrame& frame = *picture->frame;
      const bool isBright = frame.data[0][points[i].y * frame.linesize[0] + points[i].x] > 130;
      if (isBright && !bright[i]) {
        flashes[i].push_back(picture->start);
      }
      bright[i] = isBright;
    }
  });
  return flashes;
}
// Moments at which the audio of a track starts after silence.
inline std::vector<host::Time> FindClicks(const std::filesystem::path& file, std::size_t track) {
  constexpr float kLoud = 0.25F;
  constexpr host::Time kSilence = 50 * host::kMillisecond;
  host::SamplePlanes planes;
  std::vector<host::Time> clicks;
  host::Time lastLoud = 0;
  host::ReadEach(*host::Opened(AudioOf(file, track)), [&](const host::MediaItem& item) {
    const auto* const samples = std::get_if<host::AudioSamples>(&item);
    if (samples == nullptr) {
      return;
    }
    const AVFrame& frame = *samples->frame;
    const float* const plane = planes.Convert(frame)[0];
    for (int i = 0; i < frame.nb_samples; ++i) {
      if (std::abs(plane[i]) < kLoud) {
        continue;
      }
      const host::Time time = samples->start + i * host::kSecond / frame.sample_rate;
      if (time - lastLoud > kSilence) {
        clicks.push_back(time);
      }
      lastLoud = time;
    }
  });
  return clicks;
}

// All packets of a file as they are in it, for each of its streams: presentation timestamp in units
// of 100 ns, and bytes.
struct RawPacket {
  host::Time time = 0;
  std::string bytes;
};
using Demuxed = std::vector<std::vector<RawPacket>>;
inline Demuxed Demux(const std::filesystem::path& file) {
  AVFormatContext* context = nullptr;
  Demuxed streams;
  if (avformat_open_input(&context, file.c_str(), nullptr, nullptr) < 0) {
    return streams;
  }
  const host::ffmpeg::InputFormat input(context);
  avformat_find_stream_info(context, nullptr);
  streams.resize(context->nb_streams);
  const host::ffmpeg::Packet packet = host::ffmpeg::MakePacket();
  while (av_read_frame(context, packet.get()) >= 0) {
    const AVStream& stream = *context->streams[packet->stream_index];
    streams[static_cast<std::size_t>(packet->stream_index)].push_back(
        {av_rescale_q(packet->pts, stream.time_base, host::ffmpeg::kTimeUnit),
         {packet->data, packet->data + packet->size}});
    av_packet_unref(packet.get());
  }
  return streams;
}

// What `ffmpeg` prints when it decodes the whole file and stops at the first error; empty without
// errors.
inline std::string DecodeWhole(const std::filesystem::path& file) {
  const std::string command =
      "ffmpeg -nostdin -v error -xerror -i '" + file.string() + "' -map 0 -f null - 2>&1";
  ChildProcess decoder({"/bin/sh", "-c", command});
  std::string said;
  while (const std::optional<std::string> line = decoder.ReadLine()) {
    said += *line + "\n";
  }
  const int status = decoder.Wait();
  return status == 0 ? said : "ffmpeg ended with " + std::to_string(status) + ": " + said;
}

}  // namespace e2e
