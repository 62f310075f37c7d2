#include "host/session/wall_check.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "host/config/diagnostics.h"
#include "host/config/url.h"
#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/outputs.h"
#include "host/output/container.h"
#include "host/output/video_encoder.h"
#include "host/session/source_sharing.h"
#include "host/session/wall_outputs.h"

namespace host {
namespace {

using Severity = config::Diagnostic::Severity;

using config::Quoted;

std::string DidYouMean(const std::optional<std::string>& name) {
  return name ? "; did you mean " + Quoted(*name) + "?" : "";
}

class Findings {
 public:
  void Error(const std::string& key, const std::string& what) {
    all_.push_back({Severity::kError, key, what});
  }
  void Warning(const std::string& key, const std::string& what) {
    all_.push_back({Severity::kWarning, key, what});
  }
  void Note(const std::string& key, const std::string& what) {
    all_.push_back({Severity::kNote, key, what});
  }
  std::vector<Finding> Take() { return std::move(all_); }

 private:
  std::vector<Finding> all_;
};

// What FFmpeg opens for reading or writing; RTSP is a container there, but operators write it as a
// scheme.
std::vector<std::string> Schemes(bool isOutput) {
  // The usual ones first: of two that resemble a wrong name equally, the first is proposed.
  std::vector<std::string> names = {"http", "https", "rtsp", "rtmp", "udp",
                                    "rtp",  "srt",   "tcp",  "rtsps"};
  void* position = nullptr;
  while (const char* name = avio_enum_protocols(&position, isOutput ? 1 : 0)) {
    names.emplace_back(name);
  }
  return names;
}

void CheckAddress(const config::Url& url, const std::string& key, bool isOutput, bool listens,
                  Findings& findings) {
  static constexpr std::array kWithPort = {"udp", "udplite", "rtp", "srt", "tcp", "rist"};
  const std::vector<std::string> schemes = Schemes(isOutput);
  if (std::find(schemes.begin(), schemes.end(), url.scheme) == schemes.end()) {
    findings.Error(key, "has the unknown scheme " + Quoted(url.scheme) +
                            DidYouMean(config::NearestName(url.scheme, schemes)));
    return;
  }
  const bool needsPort =
      std::find(kWithPort.begin(), kWithPort.end(), url.scheme) != kWithPort.end();
  if (!url.port.empty() && !url.portNumber()) {
    findings.Error(key, "has the port " + Quoted(url.port) + ", which must be 1 to 65535");
  } else if (needsPort && url.port.empty()) {
    findings.Error(key, "has no port: it is written as " + url.scheme + "://HOST:PORT");
  }
  if (needsPort && isOutput && !listens && url.host.empty()) {
    findings.Error(key, "has no host to send to: it is written as " + url.scheme + "://HOST:PORT");
  }
}

void CheckCodec(const config::Output& output, const AVOutputFormat* container, Findings& findings) {
  const AVCodec* const encoder = FindVideoEncoder(output.codec);
  if (encoder == nullptr) {
    const std::optional<std::string> nearest = NearestVideoCodec(output.codec);
    findings.Error("codec", "is no video codec that can be encoded here: " + Quoted(output.codec) +
                                (nearest ? DidYouMean(nearest)
                                         : "; such are h264, hevc, av1, vp9 and mpeg2video"));
    return;
  }
  if (container != nullptr && !Holds(*container, encoder->id)) {
    findings.Error("codec", "does not suit: " + CannotHold(*container, encoder->id));
  }
  const auto offers = [&](const char* option) {
    return encoder->priv_class != nullptr &&
           av_opt_find(const_cast<const AVClass**>(&encoder->priv_class), option, nullptr, 0,
                       AV_OPT_SEARCH_FAKE_OBJ) != nullptr;
  };
  if (output.quality && !offers("crf")) {
    findings.Warning("quality", "is not used: " + std::string(encoder->name) +
                                    " has no constant quality; give \"bitrate\"");
  }
  if (output.places.contains("preset") && !offers("preset")) {
    findings.Warning("preset", "is not used: " + std::string(encoder->name) + " has none");
  }
}

void CheckOptions(const config::Output& output, const AVOutputFormat& container,
                  Findings& findings) {
  for (const auto& [name, nearest] : UnknownOptions(container, output.url, output.options)) {
    findings.Error("options." + name, "is an option that neither " + std::string(container.name) +
                                          " nor its protocol knows" + DidYouMean(nearest));
  }
}

// Keys that are for files only, and containers that do not suit recordings.
void CheckRecording(const config::Output& output, const AVOutputFormat* container,
                    Findings& findings) {
  const std::optional<std::string> path = config::LocalPath(output.url);
  const bool isFile = path && !ffmpeg::PipeOutput::Serves(*path);
  if (isFile) {
    if (const auto mistake =
            config::PatternMistake(std::filesystem::path(*path).filename().string())) {
      findings.Error("url", *mistake);
    } else if (container != nullptr && std::strcmp(container->name, "hls") == 0 &&
               config::ExpandFileName(*path).find('%') != std::string::npos) {
      findings.Error("url", "has a percent sign in its path, where HLS cannot be written");
    }
  }
  const bool severalFiles = container != nullptr && (container->flags & AVFMT_NOFILE) != 0;
  for (const char* const key : {"segment", "segment_size"}) {
    if ((std::strcmp(key, "segment") == 0 ? output.segment > 0 : output.segmentSize > 0) &&
        (!isFile || severalFiles)) {
      findings.Error(key, severalFiles ? std::string("cannot be given: ") + container->name +
                                             " cuts its files itself"
                                       : "is for files only");
    }
  }
  if (isFile && severalFiles && std::strcmp(container->name, "hls") != 0) {
    findings.Warning(output.format.empty() ? "url" : "format",
                     std::string("names a container, ") + container->name +
                         ", which writes several files and replaces those that are there");
  }
  if (isFile && container != nullptr && !severalFiles && !RecordingIn(*container)) {
    findings.Warning(output.format.empty() ? "url" : "format",
                     std::string("names a container, ") + container->name +
                         ", whose files are lost when the program is killed; use mkv, mp4, mov, ts "
                         "or flv");
  }
}

}  // namespace

std::vector<Finding> CheckOutput(const config::Output& output) {
  Findings findings;
  const std::optional<config::Url> url = config::ParseUrl(output.url);
  if (url && !config::LocalPath(output.url)) {
    const bool listens = config::Listens(*url, output.options);
    CheckAddress(*url, "url", true, listens, findings);
    if (url->scheme == "srt" && listens) {
      findings.Note("url",
                    "serves one viewer at a time; give each viewer an output with a port of "
                    "its own");
    }
  }
  const AVOutputFormat* const container = FindContainer(output.format, output.url);
  if (container == nullptr && !output.format.empty()) {
    findings.Error("format", "is no container: " + Quoted(output.format) +
                                 DidYouMean(NearestContainer(output.format)));
  } else if (container == nullptr && !output.url.empty()) {
    findings.Error("url", "does not tell the container; give its \"format\", such as \"mpegts\"");
  }
  CheckCodec(output, container, findings);
  if (container != nullptr) {
    CheckOptions(output, *container, findings);
  }
  CheckRecording(output, container, findings);
  return findings.Take();
}

std::vector<Finding> CheckSource(const config::Channel& channel) {
  Findings findings;
  const auto check = [&](const std::string& source, const char* key) {
    const std::optional<config::Url> url = config::ParseUrl(source);
    if (!url || config::LocalPath(source)) {
      return;
    }
    const bool listens = config::Listens(*url, channel.options.options);
    CheckAddress(*url, key, false, listens, findings);
    if (listens) {
      findings.Note(key, "waits for its sender at port " +
                             (url->port.empty() ? "1935" : url->port) + " (" + url->scheme + ")");
    }
  };
  for (const config::RenditionSource& each : channel.sources) {
    check(each.source, "sources");
  }
  if (channel.sources.empty()) {
    check(channel.source, "source");
  }
  // The container of a source is known when it is opened: options of all containers are allowed.
  const AVClass* const everything = avformat_get_class();
  for (const auto& [key, value] : channel.options.options) {
    if (av_opt_find(const_cast<const AVClass**>(&everything), key.c_str(), nullptr, 0,
                    AV_OPT_SEARCH_CHILDREN | AV_OPT_SEARCH_FAKE_OBJ) == nullptr) {
      findings.Error("options." + key, "is an option that no container and no protocol knows");
    }
  }
  return findings.Take();
}

void CheckEncoders(config::WallFile& file) {
  const auto pixels = static_cast<std::size_t>(file.wall.canvas.width) *
                      static_cast<std::size_t>(file.wall.canvas.height);
  for (const config::Output& output : file.wall.outputs) {
    if (FindVideoEncoder(output.codec) == nullptr) {
      continue;
    }
    try {
      VideoEncoder encoder(EncoderOf(file.wall.canvas, output, true));
      // Some encoders do not end when they have had no frame.
      const auto ignore = [](const ffmpeg::Packet&) {};
      encoder.Encode(std::vector<std::uint8_t>(pixels * 3 / 2), 0, ignore);
      encoder.Finish(ignore);
    } catch (const ffmpeg::Error& error) {
      const auto place = output.places.find("codec");
      file.diagnostics.Error(
          place != output.places.end() ? place->second : output.places.at("url"),
          "\"codec\" cannot be used here with these settings: " + std::string(error.what()));
    }
  }
  file.diagnostics.Sort();
}

void CheckWall(config::WallFile& file, const std::filesystem::path& path) {
  const auto add = [&](const std::vector<Finding>& findings, const config::Places& places) {
    for (const Finding& finding : findings) {
      const auto place = places.find(finding.key);
      // Where the key is not given, its default does not suit the address.
      const config::Position position = place != places.end()       ? place->second
                                        : places.contains("url")    ? places.find("url")->second
                                        : places.contains("source") ? places.find("source")->second
                                                                    : config::Position();
      const std::string key = finding.key.starts_with("options.")
                                  ? finding.key.substr(std::strlen("options."))
                                  : finding.key;
      file.diagnostics.Add({finding.severity, position, Quoted(key) + " " + finding.what});
    }
  };
  for (const config::Channel& channel : file.wall.channels) {
    if (!channel.source.empty()) {
      add(CheckSource(channel), channel.places);
    }
  }
  for (const SharingMistake& mistake : FindSharingMistakes(file.wall)) {
    add({{Severity::kError, "source", mistake.what}}, file.wall.channels[mistake.channel].places);
  }
  for (const config::Output& output : file.wall.outputs) {
    if (!output.url.empty()) {
      add(CheckOutput(output), output.places);
    }
  }
  RunFiles run;
  run.wallFile = path;
  run.outputs = file.wall.outputs;
  run.log = file.wall.log;
  for (WallFiles::Clash clash : FilesOf(file.wall, run).Clashes()) {
    const config::Position position = clash.written.place.value_or(config::Position());
    clash.written.place.reset();
    file.diagnostics.Error(position, ToText(clash, path));
  }
  file.diagnostics.Sort();
}

}  // namespace host
