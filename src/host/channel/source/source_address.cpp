#include "host/channel/source/source_address.h"

#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

namespace host {
namespace {

constexpr std::string_view kRtpScheme = "rtp:";
constexpr std::string_view kUdpScheme = "udp:";
// As the RTP protocol calls it in addresses and in options; the UDP protocol, in both, differently.
constexpr std::string_view kRtpLocalPortInUrl = "localrtpport=";
constexpr const char* kRtpLocalPort = "local_rtpport";
constexpr const char* kUdpLocalPort = "localport";
// A longer datagram would be cut off.
constexpr const char* kPacketSize = "pkt_size";
constexpr const char* kLongestDatagram = "65507";  // bytes

// FFmpeg lets a file lead to other files only; what a description leads to is the network.
constexpr const char* kAllowedProtocols = "protocol_whitelist";
constexpr const char* kProtocolsOfDescriptions = "file,crypto,data,http,https,tls,tcp,udp,rtp,srtp";

// A file whose name looks like a URL ("cam:1.ts") is still a file.
std::string OpenName(const std::string& source) {
  std::error_code ignored;
  const bool isFile =
      source.find("://") == std::string::npos && std::filesystem::exists(source, ignored);
  return isFile ? "file:" + source : source;
}

}  // namespace

SourceAddress::SourceAddress(const std::string& source)
    : name_(OpenName(source)),
      isRemote_(name_.find("://") != std::string::npos && !name_.starts_with("file:")),
      isRtp_(name_.starts_with(kRtpScheme)),
      isHttp_(name_.starts_with("http:") || name_.starts_with("https:")),
      datagrams_(isRtp_ || name_.starts_with(kUdpScheme)),
      isConnected_(name_.starts_with("srt:") || name_.starts_with("tcp:")),
      isDescription_(name_.ends_with(".sdp")) {}

SourceAddress::Options SourceAddress::OpenOptions(Options options) const {
  if (isDescription_) {
    options.try_emplace(kAllowedProtocols, kProtocolsOfDescriptions);
  }
  return options;
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
  if (isRtp_) {
    if (auto port = options.extract(kRtpLocalPort); !port.empty()) {
      port.key() = kUdpLocalPort;
      options.insert(std::move(port));
    }
  }
  if (datagrams_) {
    options.try_emplace(kPacketSize, kLongestDatagram);
  }
  return options;
}

}  // namespace host
