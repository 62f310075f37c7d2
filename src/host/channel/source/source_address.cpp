#include "host/channel/source/source_address.h"

#include <cctype>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/opt.h>
}

#include "util/url_parts.h"

namespace host {
namespace {

constexpr std::string_view kRtpScheme = "rtp:";
constexpr std::string_view kUdpScheme = "udp:";
// The local port in addresses and options of the RTP protocol, and in both of the UDP protocol.
constexpr std::string_view kRtpLocalPortInUrl = "localrtpport=";
constexpr const char* kRtpLocalPort = "local_rtpport";
constexpr const char* kUdpLocalPort = "localport";
// Longer datagrams are truncated.
constexpr const char* kPacketSize = "pkt_size";
constexpr const char* kMaxDatagram = "65507";  // bytes
// An option of every protocol.
constexpr const char* kReadTimeout = "rw_timeout";
// A receiver that was kept from running loses datagrams, but not the connection.
constexpr const char* kOverrun = "overrun_nonfatal";

constexpr const char* kFormats = "format_whitelist";
constexpr const char* kProtocols = "protocol_whitelist";

// Containers that hold media and lead nowhere else. HLS, DASH, SDP, concat, IMF and others are
// texts with names of files and addresses, which FFmpeg then opens.
#define TAVREL_CONTAINERS                                                                         \
  "mpegts,mpeg,matroska,mov,flv,live_flv,ogg,avi,asf,nut,mxf,gxf,dv,ivf,obu,wav,w64,aiff,au,caf," \
  "aac,loas,ac3,eac3,dts,truehd,mp3,flac,amr,h264,hevc,m4v,mpegvideo,vc1,mjpeg,mpjpeg,"           \
  "yuv4mpegpipe"
constexpr const char* kContainers = TAVREL_CONTAINERS;
// Over HTTP also playlists, with subtitles beside their segments, and single pictures.
constexpr const char* kHttpFormats =
    TAVREL_CONTAINERS ",hls,dash,webvtt,jpeg_pipe,png_pipe,webp_pipe,bmp_pipe,gif";
#undef TAVREL_CONTAINERS
constexpr const char* kTransportStream = "mpegts";
constexpr const char* kRtmpFormats = "flv,live_flv";
// Session descriptions, and the containers that their packets may carry.
constexpr const char* kRtspFormats = "rtsp,sdp,rtp,asf,mpegts";
constexpr const char* kDescriptionFormats = "sdp,rtp,asf,mpegts";
constexpr const char* kRtpFormats = "rtp,sdp,mpegts";

constexpr const char* kNoProtocol = "none";
constexpr const char* kNetwork = "http,https,httpproxy,tls,tcp,crypto,data";
constexpr const char* kSessions = "http,https,httpproxy,tls,tcp,udp,rtp,srtp";
constexpr const char* kRtmpProtocols =
    "rtmp,rtmpe,rtmps,rtmpt,rtmpte,rtmpts,ffrtmphttp,ffrtmpcrypt,http,https,httpproxy,tls,tcp";
constexpr const char* kRtpProtocols = "rtp,udp";
// A local description is a file, but what it leads to is the network.
constexpr const char* kLocalDescription = "file,udp,rtp,srtp";

// A file whose name looks like a URL ("cam:1.ts") is still a file.
std::string OpenName(const std::string& source) {
  std::error_code ignored;
  const bool isFile =
      source.find("://") == std::string::npos && std::filesystem::exists(source, ignored);
  return isFile ? "file:" + source : source;
}

// The part before the first colon, by FFmpeg's rules; in lower case. Empty: a path.
std::string SchemeOf(std::string_view name) {
  constexpr std::string_view kCharacters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.";
  if (name.starts_with("subfile,")) {
    return "subfile";
  }
  const std::size_t end = name.find_first_not_of(kCharacters);
  if (end == std::string_view::npos || name[end] != ':') {
    return {};
  }
  return qorp::LowerCase(name.substr(0, end));
}

// The protocols in an address that contains another one, such as "async:http://...": every name
// before a colon, except "file".
std::string NamedProtocols(std::string_view name) {
  std::string names;
  std::string word;
  for (const char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      word.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
      continue;
    }
    if ((c == ':' || c == '+' || c == ',') && !word.empty() && word != "file") {
      names += word + ",";
    }
    word.clear();
  }
  return names;
}

// Protocols that read a part of a file, or several of them.
bool IsLocalWrapper(std::string_view scheme) {
  return scheme == "subfile" || scheme == "concat" || scheme == "concatf" || scheme == "cache" ||
         scheme == "async" || scheme == "crypto" || scheme == "data";
}

bool IsDescription(std::string_view name, bool isRemote) {
  return (isRemote ? name.substr(0, name.find_first_of("?#")) : name).ends_with(".sdp");
}

// A list of other addresses, which are opened one after the other.
bool IsList(std::string_view name) {
  const std::string_view path = name.substr(0, name.find_first_of("?#"));
  return path.ends_with(".m3u8") || path.ends_with(".m3u") || path.ends_with(".mpd");
}

SourceAddress::Options Allowing(SourceAddress::Options options, const char* formats,
                                const std::string& protocols) {
  options.try_emplace(kFormats, formats);
  options.try_emplace(kProtocols, protocols);
  return options;
}

}  // namespace

SourceAddress::SourceAddress(const std::string& source)
    : name_(OpenName(source)),
      scheme_(SchemeOf(name_)),
      isRemote_(name_.find("://") != std::string::npos && !name_.starts_with("file:")),
      isRtp_(name_.starts_with(kRtpScheme)),
      isHttp_(name_.starts_with("http:") || name_.starts_with("https:")),
      datagrams_(isRtp_ || name_.starts_with(kUdpScheme)),
      isConnected_(name_.starts_with("srt:") || name_.starts_with("tcp:")),
      isDescription_(IsDescription(name_, isRemote_)),
      isList_(IsList(name_)) {}

bool SourceAddress::isShareable(bool hasProgram) const {
  return isPushed() || (hasProgram && (isConnected_ || (isHttp_ && !isList_)));
}

SourceAddress::Options SourceAddress::OpenOptions(Options options) const {
  if (datagrams_) {
    return Allowing(std::move(options), kTransportStream, kNoProtocol);
  }
  if (isConnected_) {
    return Allowing(std::move(options), kContainers, kNoProtocol);
  }
  if (scheme_.starts_with("rtsp")) {
    return Allowing(std::move(options), kRtspFormats, kSessions);
  }
  if (isDescription_) {
    return Allowing(std::move(options), kDescriptionFormats,
                    IsLocal() ? kLocalDescription : kSessions);
  }
  // A file leads to other files only, by FFmpeg's own rule.
  if (IsLocal() || (!isRemote_ && IsLocalWrapper(scheme_))) {
    return options;
  }
  if (scheme_.starts_with("rtmp")) {
    return Allowing(std::move(options), kRtmpFormats, kRtmpProtocols);
  }
  return Allowing(std::move(options), isHttp_ ? kHttpFormats : kContainers,
                  NamedProtocols(name_) + kNetwork);
}

SourceAddress::Options SourceAddress::PipeOptions(Options options) {
  return Allowing(std::move(options), kContainers, kNoProtocol);
}

SourceAddress::Options SourceAddress::RtpOptions(Options options) {
  return Allowing(std::move(options), kRtpFormats, kRtpProtocols);
}

std::string SourceAddress::ReceiverUrl() const {
  if (!isRtp_) {
    return name_;
  }
  std::string url = std::string(kUdpScheme) + name_.substr(kRtpScheme.size());
  if (const std::size_t at = url.find(kRtpLocalPortInUrl); at != std::string::npos) {
    url.replace(at, kRtpLocalPortInUrl.size(), std::string(kUdpLocalPort) + "=");
  }
  return url;
}

SourceAddress::Options SourceAddress::ReceiverOptions(Options options) const {
  options.erase(kFormats);
  options.erase(kProtocols);
  if (isRtp_) {
    if (auto port = options.extract(kRtpLocalPort); !port.empty()) {
      port.key() = kUdpLocalPort;
      options.insert(std::move(port));
    }
  }
  if (datagrams_) {
    options.try_emplace(kPacketSize, kMaxDatagram);
  }
  return options;
}

ReceiverAddress SourceAddress::Receiver(const Options& options) const {
  ReceiverAddress receiver{ReceiverUrl(), {}};
  if (datagrams_) {
    receiver.options[kOverrun] = "1";
  }
  const char* const name = avio_find_protocol_name(receiver.url.c_str());
  const AVClass* const protocol = name != nullptr ? avio_protocol_get_class(name) : nullptr;
  for (const auto& [key, value] : ReceiverOptions(options)) {
    if (key == kReadTimeout ||
        (protocol != nullptr && av_opt_find(const_cast<const AVClass**>(&protocol), key.c_str(),
                                            nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ) != nullptr)) {
      receiver.options[key] = value;
    }
  }
  return receiver;
}

}  // namespace host
