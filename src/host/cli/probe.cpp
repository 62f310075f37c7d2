#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/channel/source/media_reader.h"
#include "host/channel/source_probe.h"
#include "host/cli/commands.h"
#include "host/config/value_text.h"
#include "host/ffmpeg/mask.h"

namespace host::cli {

namespace {

std::string Decimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  std::string number = text;
  number.erase(number.find_last_not_of('0') + 1);
  return number.ends_with('.') ? number.substr(0, number.size() - 1) : number;
}

std::string VideoText(const ProbeReport& report) {
  const VideoInfo& video = *report.info.video;
  std::string text =
      video.codec + ", " + std::to_string(report.width) + "x" + std::to_string(report.height);
  if (video.frameRate.positive()) {
    text += ", " + Decimal(video.frameRate.value()) + " frames per second";
  }
  text += report.interlaced ? std::string(", interlaced (") +
                                  (report.topFieldFirst ? "top" : "bottom") + " first)"
                            : ", progressive";
  if (video.pixelAspect != Ratio{1, 1}) {
    text += ", pixels " + std::to_string(video.pixelAspect.num) + ":" +
            std::to_string(video.pixelAspect.den);
  }
  text += ", " + video.pixelFormat + ", colours " + report.colourSpace + " " + report.colourRange;
  return report.wideColour ? text + " (" + NameOf(*report.wideColour) + ")" : text;
}

std::string AudioText(const AudioInfo& audio) {
  std::string text = audio.codec + ", " + std::to_string(audio.sampleRate) + " Hz, " +
                     std::to_string(audio.channels) +
                     (audio.channels == 1 ? " channel" : " channels");
  text += audio.language.empty() ? "" : ", " + audio.language;
  return text + (audio.title.empty() ? "" : ", \"" + audio.title + "\"");
}

std::string StreamText(const StreamInfo& stream) {
  std::string text = "PID " + std::to_string(stream.pid) + "  " + stream.kind + ": " + stream.codec;
  if (stream.width > 0) {
    text += ", " + std::to_string(stream.width) + "x" + std::to_string(stream.height);
  }
  if (stream.frameRate.positive()) {
    text += ", " + Decimal(stream.frameRate.value()) + " frames per second";
  }
  if (stream.sampleRate > 0) {
    text += ", " + std::to_string(stream.sampleRate) + " Hz, " + std::to_string(stream.channels) +
            (stream.channels == 1 ? " channel" : " channels");
  }
  return text + (stream.language.empty() ? "" : ", " + stream.language);
}

void PrintPrograms(const MediaInfo& info, std::ostream& out) {
  for (const ProgramInfo& program : info.programs) {
    out << "program  " << program.number
        << (program.name.empty() ? "" : " \"" + program.name + "\"")
        << (program.provider.empty() ? "" : " of " + program.provider) << "\n";
    for (const StreamInfo& stream : program.streams) {
      out << "           " << StreamText(stream) << "\n";
    }
  }
}

nlohmann::ordered_json ProgramsAsJson(const MediaInfo& info) {
  auto programs = nlohmann::ordered_json::array();
  for (const ProgramInfo& program : info.programs) {
    auto streams = nlohmann::ordered_json::array();
    for (const StreamInfo& stream : program.streams) {
      nlohmann::ordered_json each = {
          {"pid", stream.pid}, {"kind", stream.kind}, {"codec", stream.codec}};
      if (stream.kind == NameOf(TrackKind::kVideo)) {
        each["width"] = stream.width;
        each["height"] = stream.height;
        each["frame_rate"] = {stream.frameRate.num, stream.frameRate.den};
      } else if (stream.kind == NameOf(TrackKind::kAudio)) {
        each["sample_rate"] = stream.sampleRate;
        each["channels"] = stream.channels;
      }
      each["language"] = stream.language;
      streams.push_back(std::move(each));
    }
    programs.push_back({{"number", program.number},
                        {"service_name", program.name},
                        {"provider", program.provider},
                        {"streams", std::move(streams)}});
  }
  return programs;
}

// How a wall handles such a source: a sentence for everything that is not shown unchanged.
std::vector<std::string> WallTreatment(const ProbeReport& report, Ratio canvasRate) {
  std::vector<std::string> sentences;
  const MediaInfo& info = report.info;
  if (info.video) {
    const VideoInfo& video = *info.video;
    if (report.frames == 0) {
      sentences.emplace_back("no picture could be decoded at its beginning");
    }
    if (report.interlaced) {
      const bool fields = video.frameRate.positive() &&
                          FrameDuration(canvasRate) * 3 < FrameDuration(video.frameRate) * 2;
      sentences.emplace_back(fields ? "pictures are deinterlaced, one for each field"
                                    : "pictures are deinterlaced");
    }
    if (report.wideColour) {
      const std::string name = NameOf(*report.wideColour);
      sentences.push_back(report.wideColour->isHdr()
                              ? "high dynamic range (" + name +
                                    ") is tone-mapped to BT.709, from " +
                                    std::to_string(report.wideColour->peak) + " cd/m2"
                              : "wide colours (" + name + ") are converted to BT.709");
    }
    if (report.orientation.mirrored) {
      sentences.emplace_back("frames are mirrored");
    }
    if (report.orientation.rotation != 0) {
      sentences.push_back("frames are turned by " + std::to_string(report.orientation.rotation) +
                          " degrees");
    }
    if (video.frameRate.positive() && video.frameRate.value() > canvasRate.value() * 1.001) {
      sentences.push_back("pictures are thinned to " + Decimal(canvasRate.value()) + " a second");
    }
    double shape = report.height > 0 ? report.width * video.pixelAspect.value() / report.height : 0;
    if (shape > 0 && report.orientation.swapsSides()) {
      shape = 1 / shape;
    }
    if (shape > 0 && std::abs(shape - 16.0 / 9.0) > 0.02) {
      sentences.push_back("its shape is " + Decimal(shape) +
                          " to 1: a window of 16:9 has black bars " +
                          (shape < 16.0 / 9.0 ? "left and right" : "above and below"));
    }
  } else {
    sentences.emplace_back("its window stays black");
  }
  if (info.audio) {
    sentences.emplace_back(report.passesThrough ? "audio passes through as it is"
                                                : "audio is encoded to AAC for the outputs");
    if (info.audio->channels > 10) {
      sentences.emplace_back("meters show the first ten channels of the audio");
    }
  }
  return sentences;
}

void PrintText(const ProbeReport& report, const std::string& source, Ratio rate,
               std::ostream& out) {
  const MediaInfo& info = report.info;
  out << "source   " << source << "\n";
  out << "format   " << info.format;
  if (info.length) {
    out << ", " << Decimal(static_cast<double>(*info.length) / kSecond) << " s";
  }
  out << (info.serviceName.empty() ? "" : ", service \"" + info.serviceName + "\"") << "\n";
  out << "video    " << (info.video ? VideoText(report) : "none: " + info.noVideoReason) << "\n";
  if (!info.audio) {
    out << "audio    none: " << info.noAudioReason << "\n";
  }
  for (std::size_t i = 0; i < info.audioTracks.size(); ++i) {
    const AudioInfo& track = info.audioTracks[i];
    const bool used = info.audio && info.audio->streamIndex == track.streamIndex;
    out << "audio " << i + 1 << (used ? "* " : "  ") << AudioText(track) << "\n";
  }
  PrintPrograms(info, out);
  for (const std::string& sentence : WallTreatment(report, rate)) {
    out << "wall     " << sentence << "\n";
  }
}

void PrintJson(const ProbeReport& report, const std::string& source, Ratio rate,
               std::ostream& out) {
  const MediaInfo& info = report.info;
  nlohmann::ordered_json json;
  json["source"] = source;
  json["ok"] = true;
  json["format"] = info.format;
  json["service_name"] = info.serviceName;
  if (info.length) {
    json["seconds"] = static_cast<double>(*info.length) / kSecond;
  }
  if (info.video) {
    const VideoInfo& video = *info.video;
    json["video"] = {{"codec", video.codec},
                     {"width", report.width},
                     {"height", report.height},
                     {"frame_rate", {video.frameRate.num, video.frameRate.den}},
                     {"pixel_aspect", {video.pixelAspect.num, video.pixelAspect.den}},
                     {"interlaced", report.interlaced},
                     {"pixel_format", video.pixelFormat},
                     {"colour_space", report.colourSpace},
                     {"colour_range", report.colourRange},
                     {"colour_primaries", report.colourPrimaries},
                     {"colour_transfer", report.colourTransfer},
                     {"rotation", report.orientation.rotation},
                     {"mirrored", report.orientation.mirrored}};
  }
  json["audio"] = nlohmann::ordered_json::array();
  for (const AudioInfo& track : info.audioTracks) {
    json["audio"].push_back({{"codec", track.codec},
                             {"sample_rate", track.sampleRate},
                             {"channels", track.channels},
                             {"language", track.language},
                             {"title", track.title},
                             {"used", info.audio && info.audio->streamIndex == track.streamIndex}});
  }
  if (!info.programs.empty()) {
    json["programs"] = ProgramsAsJson(info);
  }
  json["passes_through"] = report.passesThrough;
  json["loudest"] = report.loudest;
  json["damaged_packets"] = report.damagedPackets;
  json["wall"] = WallTreatment(report, rate);
  out << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

}  // namespace

void DefineProbe(CLI::App& app, ProbeOptions& options) {
  app.add_option("SOURCE", options.source, "a file or a URL")->required();
  app.add_option("--frame-rate", options.frameRate, "of the wall, 25 or 30000/1001")
      ->envname("TAVREL_FRAME_RATE")
      ->capture_default_str()
      ->check([](const std::string& text) {
        const auto rate = config::ParseFrameRate(text);
        return rate && rate->value() >= 1 && rate->value() <= 120
                   ? std::string()
                   : "must be 1 to 120 frames per second, such as 25 or 30000/1001";
      });
  app.add_option("--limit", options.limit, "seconds that opening may take")
      ->envname("TAVREL_LIMIT")
      ->capture_default_str()
      ->check(SecondsBetween(0.1, 3600));
  app.add_option("--program", options.program,
                 "number or service name: of a multiplex, what is shown of it")
      ->envname("TAVREL_PROGRAM");
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
}

ExitCode Probe(const ProbeOptions& options, Streams& streams) {
  const std::string source = ffmpeg::MaskUrl(options.source);
  const Ratio rate = config::ParseFrameRate(options.frameRate).value_or(Ratio{25, 1});
  MediaReader::Settings settings;
  settings.source = options.source;
  settings.program = config::ParseProgram(options.program);
  settings.options.openLimit = std::lround(options.limit * 1000) * kMillisecond;
  MediaReader reader(settings);
  try {
    reader.Open();
    const ProbeReport report = Examine(reader);
    if (options.json) {
      PrintJson(report, source, rate, streams.out);
    } else {
      PrintText(report, source, rate, streams.out);
    }
    return ExitCode::kDone;
  } catch (const MediaError& error) {
    if (options.json) {
      const nlohmann::ordered_json json = {
          {"source", source}, {"ok", false}, {"error", error.reason()}};
      streams.out << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                  << "\n";
    }
    streams.err << "tavrel: " << error.what() << "\n";
    return ExitCode::kCouldNotStart;
  }
}

}  // namespace host::cli
