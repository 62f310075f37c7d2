#include "host/output/output_files.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
}

#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace host {

namespace {

using ffmpeg::FileOutput;

constexpr std::size_t kMaxNumber = 1'000'000;

std::string Numbered(const std::filesystem::path& path, std::size_t number) {
  std::filesystem::path numbered = path;
  if (number > 1) {
    numbered.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                              path.extension().string());
  }
  return numbered.string();
}

constexpr std::int64_t kAudioRate = 256'000;

// A segment lasts the first multiple of the keyframe interval that is no shorter than this.
constexpr Time kMinSegment = 19 * kSecond / 10;

std::string AudioName(std::size_t number) {
  return "sound" + std::to_string(number + 1);
}

// The quoted strings of a playlist hold neither quotes nor line ends.
std::string QuotedAttribute(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '"' || c == '\n' || c == '\r'; }, '\'');
  return "\"" + text + "\"";
}

}  // namespace

std::string FreeName(const std::string& path) {
  std::error_code ignored;
  std::size_t number = 1;
  while (number < kMaxNumber && std::filesystem::exists(Numbered(path, number), ignored)) {
    ++number;
  }
  return Numbered(path, number);
}

RecordingFiles::RecordingFiles(std::string path, Existing existing)
    : path_(std::move(path)), existing_(existing) {}

std::string RecordingFiles::Name() const {
  return config::ExpandFileName(path_);
}

std::string RecordingFiles::NextName() {
  const std::string name = Name();
  std::string next = existing_ == Existing::kReplaced ? name : FreeName(name);
  avoided_ = next != name;
  return next;
}

void RecordingFiles::ForgetLatest() {
  number_ -= number_ > 0 ? 1 : 0;
  if (std::exchange(replaced_, false)) {
    existing_ = Existing::kReplaced;
  }
}

std::unique_ptr<FileOutput> RecordingFiles::Next() {
  const std::string name = Name();
  const Existing existing = existing_;
  number_ = name == name_ ? number_ : 0;
  name_ = name;
  if (existing == Existing::kReplaced) {
    auto file = std::make_unique<FileOutput>(name, FileOutput::Existing::kReplaced);
    existing_ = Existing::kKept;
    number_ = 1;
    replaced_ = true;
    return file;
  }
  for (const std::size_t first = number_ + 1;;) {
    try {
      auto file =
          std::make_unique<FileOutput>(Numbered(name, number_ + 1), FileOutput::Existing::kKept);
      ++number_;
      avoided_ = number_ > first;
      existing_ = Existing::kKept;
      replaced_ = false;
      return file;
    } catch (const ffmpeg::Error& error) {
      if (error.code() != AVERROR(EEXIST) || existing == Existing::kRefused ||
          number_ >= kMaxNumber) {
        throw;
      }
      ++number_;
    }
  }
}

HlsLayout::HlsLayout(const Muxer::Settings& settings, Kind kind, Time keyframes)
    : settings_(settings),
      playlist_(settings.url),
      kind_(kind),
      keyframes_(std::max<Time>(1, keyframes)) {
  if (settings.url.find("://") != std::string::npos) {
    throw ffmpeg::Error(AVERROR(EINVAL), "HLS is written to files only, not to", settings.url);
  }
  // FFmpeg replaces percent signs with numbers, and has no escape for them.
  if (settings.url.find('%') != std::string::npos) {
    throw ffmpeg::Error(AVERROR(EINVAL), "HLS cannot be written to a path with a percent sign",
                        settings.url);
  }
}

void HlsLayout::AddAudio(const std::string& name, const std::string& language) {
  audios_.push_back({name, language});
}

void HlsLayout::Apply(Muxer& muxer) const {
  const std::string stem = (playlist_.parent_path() / playlist_.stem()).string();
  std::string map = "v:0,name:video";
  for (std::size_t i = 0; i < audios_.size(); ++i) {
    map += " a:" + std::to_string(i) + ",name:" + AudioName(i);
  }
  muxer.SetUrl(stem + "_%v.m3u8");
  const auto choose = [&](const std::string& key, const std::string& value) {
    if (!settings_.options.contains(key)) {
      muxer.SetOption(key, value);
    }
  };
  muxer.SetOption("var_stream_map", map);
  choose("hls_segment_filename", stem + "_%v_%05d.ts");
  // The renditions of audio are cut at these times, too.
  const Time segment = (kMinSegment + keyframes_ - 1) / keyframes_ * keyframes_;
  char seconds[32];
  std::snprintf(seconds, sizeof(seconds), "%.6f", static_cast<double>(segment) / kSecond);
  choose("hls_time", seconds);
  std::string flags = "independent_segments";
  if (kind_.isLive) {
    // The date lets a player find its place in a rendition that it returns to.
    flags += "+delete_segments+program_date_time";
  }
  if (kind_.isLive && !kind_.isKept) {
    std::error_code ignored;
    if (std::filesystem::exists(stem + "_video.m3u8", ignored)) {
      flags += "+append_list";
    } else {
      // Players and caches may know segments of a playlist that was removed.
      choose("hls_start_number_source", "epoch");
    }
  }
  choose("hls_flags", flags);
  choose("hls_list_size", kind_.isLive ? "6" : "0");
  if (!kind_.isLive) {
    choose("hls_playlist_type", "vod");
  }
}

std::string HlsLayout::Playlist(const AVCodecParameters& video, Ratio frameRate) const {
  const std::string stem = playlist_.stem().string();
  std::string text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-INDEPENDENT-SEGMENTS\n";
  for (std::size_t i = 0; i < audios_.size(); ++i) {
    text += "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"sound\",NAME=" + QuotedAttribute(audios_[i].name);
    if (!audios_[i].language.empty()) {
      text += ",LANGUAGE=" + QuotedAttribute(audios_[i].language);
    }
    text += std::string(",DEFAULT=") + (i == 0 ? "YES" : "NO") +
            ",AUTOSELECT=YES,URI=" + QuotedAttribute(stem + "_" + AudioName(i) + ".m3u8") + "\n";
  }
  // An encoder of constant quality does not know its bit rate; players only compare rates.
  const auto guess = static_cast<std::int64_t>(video.width * video.height * frameRate.value() / 10);
  char rate[32];
  std::snprintf(rate, sizeof(rate), "%.3f", frameRate.value());
  text += "#EXT-X-STREAM-INF:BANDWIDTH=" +
          std::to_string((video.bit_rate > 0 ? video.bit_rate : guess) + kAudioRate) +
          ",RESOLUTION=" + std::to_string(video.width) + "x" + std::to_string(video.height) +
          ",FRAME-RATE=" + rate;
  if (!audios_.empty()) {
    text += ",AUDIO=\"sound\"";
  }
  return text + "\n" + stem + "_video.m3u8\n";
}

void HlsLayout::WritePlaylist(const AVCodecParameters& video, Ratio frameRate) const {
  // Players read it at any time.
  if (const std::uint32_t error = os::ReplaceFile(playlist_, Playlist(video, frameRate));
      error != 0) {
    throw std::runtime_error("cannot write \"" + ffmpeg::MaskUrl(settings_.url) +
                             "\": " + os::FileErrorText(error));
  }
}

}  // namespace host
