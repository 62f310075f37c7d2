#include "host/output/container.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "host/config/diagnostics.h"
#include "host/config/url.h"

namespace host {
namespace {

// How much of a recording a kill may lose, besides what the encoder holds.
constexpr Time kFlushInterval = kSecond / 2;

// Audio may be written half a second behind the video, which carries the PCR: see Interleaver.
constexpr Time kDecoderDelay = 700 * kMillisecond;
constexpr Time kShortDecoderDelay = 200 * kMillisecond;
// Milliseconds; no longer than a frame: every frame has a PCR up to 50 frames per second. PES
// packets of audio stay small (pes_payload_size), so that audio leaves in time.
constexpr const char* kPcrPeriod = "20";

// FFmpeg finds the format of a file by its name, but not that of most URLs.
const char* FormatOfScheme(const std::string& scheme) {
  if (scheme == "udp" || scheme == "srt" || scheme == "tcp") {
    return "mpegts";
  }
  if (scheme == "rtp") {
    return "rtp_mpegts";
  }
  return scheme.starts_with("rtmp") ? "flv" : scheme.starts_with("rtsp") ? "rtsp" : nullptr;
}

bool Has(const AVClass* const options, const char* name) {
  // The class stands in for an object whose first member is a pointer to it.
  return options != nullptr && av_opt_find(const_cast<const AVClass**>(&options), name, nullptr, 0,
                                           AV_OPT_SEARCH_FAKE_OBJ) != nullptr;
}

void AddNames(const AVClass* const options, int flag, std::vector<std::string>& names) {
  const AVOption* option = nullptr;
  const AVClass* const* const object = &options;
  while (options != nullptr && (option = av_opt_next(object, option)) != nullptr) {
    if (option->type != AV_OPT_TYPE_CONST && (flag == 0 || (option->flags & flag) != 0)) {
      names.emplace_back(option->name);
    }
  }
}

// The protocols below that of the URL take options, too.
std::vector<const char*> ProtocolsOf(const std::string& url) {
  const std::optional<config::Url> parsed = config::ParseUrl(url);
  if (!parsed) {
    return {};
  }
  static constexpr std::array kBelow = {"tcp", "tls", "udp", "http", "ffrtmphttp"};
  std::vector<const char*> protocols(kBelow.begin(), kBelow.end());
  void* position = nullptr;
  while (const char* name = avio_enum_protocols(&position, 1)) {
    if (parsed->scheme == name) {
      protocols.push_back(name);
    }
  }
  return protocols;
}

}  // namespace

const AVOutputFormat* FindContainer(const std::string& format, const std::string& url) {
  if (!format.empty()) {
    return av_guess_format(format.c_str(), nullptr, nullptr);
  }
  if (const std::optional<config::Url> parsed = config::ParseUrl(url)) {
    if (const char* const name = FormatOfScheme(parsed->scheme)) {
      return av_guess_format(name, nullptr, nullptr);
    }
  }
  return av_guess_format(nullptr, url.c_str(), nullptr);
}

std::optional<std::string> NearestContainer(const std::string& name) {
  if (const AVOutputFormat* const byFile =
          av_guess_format(nullptr, ("x." + name).c_str(), nullptr)) {
    return byFile->name;
  }
  std::vector<std::string> names;
  void* position = nullptr;
  while (const AVOutputFormat* const container = av_muxer_iterate(&position)) {
    names.emplace_back(container->name);
  }
  return config::NearestName(name, names);
}

std::optional<Recording> RecordingIn(const AVOutputFormat& container) {
  const std::string name = container.name;
  if (name == "mpegts" || name == "flv" || name == "nut") {
    return Recording{};
  }
  if (name == "matroska" || name == "webm") {
    return Recording{{{"cluster_time_limit", std::to_string(kFlushInterval / kMillisecond)}}, 0};
  }
  if (Has(container.priv_class, "movflags")) {
    // skip_trailer: the table of fragments at the end would need memory for each of them until
    // then. delay_moov: a track of AC-3 is described from its first packet, so the header is
    // written with the first fragment.
    return Recording{
        {{"movflags", "frag_custom+empty_moov+delay_moov+default_base_moof+skip_trailer"}},
        kFlushInterval};
  }
  return std::nullopt;
}

Time DecoderDelay(const AVOutputFormat& container, bool lowDelay) {
  const std::string_view name = container.name;
  if (name != "mpegts" && name != "rtp_mpegts") {
    return 0;
  }
  return lowDelay ? kShortDecoderDelay : kDecoderDelay;
}

std::map<std::string, std::string> TransportOptions(const AVOutputFormat& container) {
  const std::string_view name = container.name;
  if (name == "mpegts") {
    return {{"pcr_period", kPcrPeriod}, {"pes_payload_size", "0"}};
  }
  if (name == "rtp_mpegts") {
    return {
        {"mpegts_muxer_options", std::string("pcr_period=") + kPcrPeriod + ":pes_payload_size=0"}};
  }
  return {};
}

bool Holds(const AVOutputFormat& container, int codec) {
  return avformat_query_codec(&container, static_cast<AVCodecID>(codec), FF_COMPLIANCE_NORMAL) != 0;
}

bool WantsAac(const AVOutputFormat& container, int codec) {
  const std::string_view name = container.name;
  const bool holds = name != "flv" && name != "hls" && Holds(container, codec);
  return codec != AV_CODEC_ID_AAC && !holds && Holds(container, AV_CODEC_ID_AAC);
}

std::string CannotHold(const AVOutputFormat& container, int codec) {
  const auto id = static_cast<AVCodecID>(codec);
  std::vector<std::string> names;
  const AVCodecDescriptor* other = nullptr;
  while ((other = avcodec_descriptor_next(other)) != nullptr) {
    if (other->type == avcodec_get_type(id) && avcodec_find_encoder(other->id) != nullptr &&
        avformat_query_codec(&container, other->id, FF_COMPLIANCE_NORMAL) == 1) {
      names.emplace_back(other->name);
    }
  }
  // The common ones first.
  std::stable_partition(names.begin(), names.end(), [](const std::string& name) {
    return name == "h264" || name == "hevc" || name == "av1" || name == "aac";
  });
  std::string text = std::string(container.name) + " cannot hold " + avcodec_get_name(id);
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? ": it holds " : ", ") + names[i];
  }
  return text;
}

std::map<std::string, std::optional<std::string>> UnknownOptions(
    const AVOutputFormat& container, const std::string& url,
    const std::map<std::string, std::string>& options) {
  std::vector<std::string> known;
  AddNames(avformat_get_class(), AV_OPT_FLAG_ENCODING_PARAM, known);
  AddNames(container.priv_class, 0, known);
  for (const char* const protocol : ProtocolsOf(url)) {
    AddNames(avio_protocol_get_class(protocol), 0, known);
  }
  std::map<std::string, std::optional<std::string>> unknown;
  for (const auto& [key, value] : options) {
    if (std::find(known.begin(), known.end(), key) == known.end()) {
      unknown[key] = config::NearestName(key, known);
    }
  }
  return unknown;
}

}  // namespace host
