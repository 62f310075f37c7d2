#include "tools/simulation/long_run.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <variant>

#include <malloc.h>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "host/channel/source/media_reader.h"
#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"
#include "host/feed/feed_pin.h"
#include "host/ffmpeg/error.h"
#include "host/output/muxer.h"
#include "host/output/output_files.h"
#include "host/output/output_session.h"
#include "host/output/video_encoder.h"
#include "platform/os/files.h"
#include "tools/simulation/simulated_wall.h"

namespace simulation {

namespace {

using host::kMillisecond;
using host::kSecond;

// A shorter step than what the source's clock takes for a jump.
constexpr Time kStep = 9 * kSecond;
// Packets at the end of the pipe may have no timestamps.
constexpr Time kUnjudged = 3 * kStep;
constexpr int kSettling = 10;            // frames
constexpr int kNoteEvery = 997;          // frames; adding up the heap takes a while
constexpr int kSize = 32;                // pixels
constexpr int kMaxIndexEntries = 1'000;  // of the demuxer: it is replaced often enough
constexpr std::size_t kAllowedOfWall = 48 << 10;
constexpr std::size_t kAllowedOfStream = 1 << 20;  // an index may be full or empty

// Two keyframes, which take turns.
std::vector<host::ffmpeg::Packet> Keyframes(host::VideoEncoder& encoder) {
  std::vector<host::ffmpeg::Packet> packets;
  const std::vector<std::uint8_t> picture(static_cast<std::size_t>(host::FrameBytes(kSize, kSize)),
                                          128);
  for (int i = 0; i < 3; ++i) {
    encoder.Encode(picture, i * kSecond,
                   [&](host::ffmpeg::Packet packet) { packets.push_back(std::move(packet)); });
  }
  packets.erase(packets.begin());  // says which encoder it was
  return packets;
}

host::VideoEncoder::Settings TinyVideo() {
  host::VideoEncoder::Settings settings;
  settings.width = settings.height = kSize;
  settings.frameRate = {1, 1};
  settings.preset = "ultrafast";
  settings.lowDelay = true;
  settings.keyFrameInterval = kSecond;
  settings.threads = 1;
  return settings;
}

host::ffmpeg::Packet SilentPacket(const AVCodecParameters& parameters) {
  constexpr int kPackets = 8;
  host::ffmpeg::Frame frame = host::ffmpeg::MakeFrame();
  frame->format = AV_SAMPLE_FMT_FLTP;
  frame->nb_samples = kPackets * 1024;
  frame->sample_rate = parameters.sample_rate;
  av_channel_layout_default(&frame->ch_layout, parameters.ch_layout.nb_channels);
  host::ffmpeg::Check(av_frame_get_buffer(frame.get(), 0), "cannot make silence");
  av_samples_set_silence(frame->extended_data, 0, frame->nb_samples,
                         parameters.ch_layout.nb_channels, AV_SAMPLE_FMT_FLTP);
  host::ffmpeg::Packet latest;
  host::AudioEncoder encoder(parameters);
  encoder.Push(*frame, 0, [&](host::ffmpeg::Packet packet) { latest = std::move(packet); });
  return latest;
}

host::ffmpeg::Packet At(const AVPacket& packet, Time time) {
  host::ffmpeg::Packet copy = host::ffmpeg::RefPacket(packet);
  copy->pts = copy->dts = time;
  return copy;
}

void WriteStream(const std::string& pipe, const std::string& format, Time length) {
  host::VideoEncoder encoder(TinyVideo());
  const std::vector<host::ffmpeg::Packet> keyframes = Keyframes(encoder);
  const std::shared_ptr<const host::AudioFormat> audio = host::AacFormat(48'000, 1, "");
  const host::ffmpeg::Packet silence = SilentPacket(*audio->parameters);
  host::Muxer::Settings settings;
  settings.url = pipe;
  settings.format = format;
  settings.interleaves = false;
  if (format == "mp4") {
    settings.options["movflags"] = "frag_keyframe+empty_moov+default_base_moof+skip_trailer";
  }
  host::Muxer muxer(settings);
  const std::size_t videoTrack = muxer.AddVideo(*encoder.parameters(), {1, 1});
  const std::size_t audioTrack = muxer.AddAudio(*audio->parameters, "", "");
  muxer.Start();
  for (std::int64_t i = 0; i * kStep < length + kUnjudged; ++i) {
    muxer.Write(videoTrack, At(*keyframes[static_cast<std::size_t>(i % 2)], i * kStep));
    muxer.Write(audioTrack, At(*silence, i * kStep + kMillisecond));
  }
  muxer.Finish();
}

std::string Days(Time time) {
  return std::to_string(time / (24 * 3600 * kSecond)) + " days";
}

// Timestamps of the tags of an FLV file, in milliseconds; empty when it is none.
std::vector<std::int64_t> TagTimes(const std::filesystem::path& path) {
  constexpr std::size_t kHeader = 13;
  constexpr std::size_t kTag = 11;
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const auto at = [&](std::size_t i) { return std::int64_t{static_cast<std::uint8_t>(bytes[i])}; };
  std::vector<std::int64_t> times;
  for (std::size_t i = kHeader; i + kTag <= bytes.size();) {
    if (at(i) == 9) {
      times.push_back(at(i + 7) << 24 | at(i + 4) << 16 | at(i + 5) << 8 | at(i + 6));
    }
    i += kTag + static_cast<std::size_t>(at(i + 1) << 16 | at(i + 2) << 8 | at(i + 3)) + 4;
  }
  return times;
}

}  // namespace

void HeapTrend::Note(Time time) {
  const struct mallinfo2 heap = mallinfo2();
  const std::size_t bytes = heap.uordblks + heap.hblkhd;
  const Time twelfth = time * 12 / length_;
  Least* const least = twelfth == 1 ? &early_ : twelfth == 11 ? &late_ : nullptr;
  if (least != nullptr) {
    least->bytes = least->noted ? std::min(least->bytes, bytes) : bytes;
    least->noted = true;
  }
}

std::string HeapTrend::Growth() const {
  if (!early_.noted || !late_.noted || early_.bytes == 0 ||
      late_.bytes <= early_.bytes + allowed_) {
    return {};
  }
  return "the heap grows from " + std::to_string(early_.bytes) + " to " +
         std::to_string(late_.bytes) + " bytes between the second and the last twelfth";
}

std::vector<std::string> LongWall(Time length, const std::string& composerLibrary) {
  HeapTrend heap(length, kAllowedOfWall);
  const Scenario scenario = MakeLongScenario(length);
  std::vector<std::string> violations =
      Run(scenario, composerLibrary, std::nullopt, [&](Time time) { heap.Note(time); }).violations;
  if (const std::string growth = heap.Growth(); !growth.empty()) {
    violations.push_back(growth);
  }
  return violations;
}

std::vector<std::string> LongStream(Time length, const std::string& format) {
  const os::TemporaryFolder folder;
  const std::string pipe = (folder / "pipe").string();
  if (::mkfifo(pipe.c_str(), 0600) != 0) {
    throw std::runtime_error("cannot make a pipe");
  }
  std::string failure;
  std::thread writing([&] {
    try {
      WriteStream(pipe, format, length);
    } catch (const std::exception& error) {
      failure = error.what();
    }
  });
  std::vector<std::string> violations;
  HeapTrend heap(length, kAllowedOfStream);
  const std::int64_t sent = (length + kStep - 1) / kStep;
  std::int64_t frames = 0;
  std::int64_t packets = 0;
  std::uint64_t exchanges = 0;
  try {
    host::MediaReader::Settings settings;
    settings.source = pipe;
    settings.options.readLimit = 60 * kSecond;
    settings.maxIndexEntries = kMaxIndexEntries;
    host::MediaReader reader(settings);
    reader.Open();
    std::optional<Time> first;
    std::optional<Time> firstAudio;
    const auto check = [&](std::optional<Time>& begin, std::int64_t n, Time start,
                           const char* kind) {
      // At first the interval of such a slow stream is unknown: its first step may count as a jump.
      if (n < kSettling) {
        begin = start - n * kStep;
        return;
      }
      const Time error = n < sent ? start - *begin - n * kStep : 0;
      if (std::abs(error) > 2 * kMillisecond && violations.empty()) {
        violations.push_back(std::string(kind) + " is " + std::to_string(error / kMillisecond) +
                             " ms off after " + Days(n * kStep));
      }
    };
    for (host::MediaItem item = reader.Read();
         !std::holds_alternative<host::EndOfMedia>(item) && violations.empty();
         item = reader.Read()) {
      if (const auto* const picture = std::get_if<host::DecodedFrame>(&item)) {
        check(first, frames, picture->start, "video");
        if (frames++ % kNoteEvery == 0) {
          heap.Note(frames * kStep);
        }
      } else if (const auto* const packet = std::get_if<host::AudioPacket>(&item)) {
        check(firstAudio, packets++, packet->start, "audio");
      }
    }
    exchanges = reader.exchanges();
  } catch (const host::MediaError& error) {
    violations.emplace_back(error.what());
  }
  writing.join();
  if (!failure.empty() && violations.empty()) {
    violations.push_back("the output failed: " + failure);
  }
  if (violations.empty() && (frames < sent || packets < sent)) {
    violations.push_back(std::to_string(frames) + " frames and " + std::to_string(packets) +
                         " packets of audio of " + std::to_string(sent));
  }
  if (format == "mp4" && exchanges < static_cast<std::uint64_t>(sent / kMaxIndexEntries / 2)) {
    violations.push_back("the demuxer was exchanged " + std::to_string(exchanges) + " times only");
  }
  if (const std::string growth = heap.Growth(); !growth.empty()) {
    violations.push_back(growth);
  }
  return violations;
}

std::vector<std::string> LongRecording(Time length) {
  constexpr Time kMinute = 60 * kSecond;
  constexpr Time kDay = 24 * 60 * kMinute;
  const os::TemporaryFolder folder;
  host::VideoEncoder encoder(TinyVideo());
  const std::vector<host::ffmpeg::Packet> keyframes = Keyframes(encoder);
  host::OutputSession::Settings settings;
  settings.muxer.url = (folder / "year.flv").string();
  settings.muxer.survivesKill = true;
  settings.frameRate = {1, 1};
  host::OutputCounters counters(0);
  host::RecordingFiles files(settings.muxer.url, host::RecordingFiles::Existing::kKept);
  std::vector<std::string> violations;
  std::vector<std::string> names;
  Time lengthOfFiles = 0;
  const auto readLatest = [&] {
    const std::vector<std::int64_t> times =
        names.empty() ? std::vector<std::int64_t>{0} : TagTimes(names.back());
    if (times.empty() || times.front() != 0 || !std::is_sorted(times.begin(), times.end())) {
      violations.push_back("the timestamps in " + names.back() + " do not increase from 0 on");
      return;
    }
    lengthOfFiles += times.back() * kMillisecond + (names.empty() ? 0 : kMinute);
    if (!names.empty()) {
      std::filesystem::remove(names.back());
    }
  };
  const auto video = encoder.parameters();
  HeapTrend heap(length, kAllowedOfWall);
  {
    host::OutputSession pass(settings, *video, counters,
                             {&files, [](const std::string&) {},
                              [&](const host::OutputSession&, const std::string& file) {
                                readLatest();
                                names.push_back(file);
                              }});
    for (Time time = 0; time < length; time += kMinute) {
      pass.Take({host::TrackPacket::kVideo,
                 At(*keyframes[static_cast<std::size_t>(time / kMinute % 2)], time), 0});
      if (time % kDay == 0) {
        heap.Note(time);
      }
    }
    pass.Finish();
  }
  readLatest();
  if (std::abs(lengthOfFiles - length) > kMinute) {
    violations.push_back("the files hold " + Days(lengthOfFiles) + " of " + Days(length));
  }
  if (const std::string growth = heap.Growth(); !growth.empty()) {
    violations.push_back(growth);
  }
  return violations;
}

}  // namespace simulation
