// SourceAddress: what the path or URL of a source refers to, and how to open it.
#pragma once

#include <compare>
#include <map>
#include <string>

namespace host {

// A connection that carries a transport stream. Readers with equal addresses share it.
struct ReceiverAddress {
  std::string url;
  std::map<std::string, std::string> options;  // of the protocol
  bool isPipe = false;                         // the URL is the path of a pipe
  // NOLINTNEXTLINE(modernize-use-nullptr): there is none
  auto operator<=>(const ReceiverAddress&) const = default;
};

// Decided by the text alone, except for a file whose name has the form of a URL. Immutable.
class SourceAddress {
 public:
  using Options = std::map<std::string, std::string>;  // of FFmpeg's protocol and container

  explicit SourceAddress(const std::string& source);

  // The name under which FFmpeg opens it.
  const std::string& name() const { return name_; }

  // From the network, as far as the text shows.
  bool isRemote() const { return isRemote_; }
  // An endless transport stream, whose service may change. For an RTP address this is an
  // assumption, which the first packets confirm or not.
  bool carriesTransportStream() const { return datagrams_ || isConnected_; }
  // No connection: a sender that stops and returns is received again.
  bool isDatagrams() const { return datagrams_; }
  bool isRtp() const { return isRtp_; }
  bool isHttp() const { return isHttp_; }
  // A session description, which says what is received and where.
  bool isDescription() const { return isDescription_; }

  // Several readers may share one connection, because they can join its stream at any time: the
  // address shows that it is a transport stream, or the operator says so by choosing a program.
  bool isShareable(bool hasProgram) const;
  // The sender does not wait for its reader.
  bool isPushed() const { return datagrams_ || scheme_ == "srt"; }

  // The given options, and what else opening name() needs: above all, the formats and protocols
  // that it may lead to (format_whitelist, protocol_whitelist). Data from the network never leads
  // to a local file, and a list of other addresses is accepted only where an operator expects one
  // behind such an address. Given options take precedence: they may allow more.
  Options OpenOptions(Options options) const;
  // The same for a pipe or a device, which may lead nowhere else.
  static Options PipeOptions(Options options);
  // The same for an RTP address without a transport stream.
  static Options RtpOptions(Options options);

  // URL and options for receiving a transport stream. The whitelists are left to the demuxer.
  std::string ReceiverUrl() const;
  Options ReceiverOptions(Options options) const;
  // The same without the demuxer's options: sources with equal addresses share a connection.
  ReceiverAddress Receiver(const Options& options) const;

 private:
  bool IsLocal() const { return scheme_.empty() || scheme_ == "file"; }

  std::string name_;
  std::string scheme_;  // as FFmpeg understands the name; empty: a path
  bool isRemote_ = false;
  bool isRtp_ = false;
  bool isHttp_ = false;
  bool datagrams_ = false;
  bool isConnected_ = false;
  bool isDescription_ = false;
  bool isList_ = false;
};

}  // namespace host
