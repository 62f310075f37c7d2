// SourceAddress: what is behind the path or URL of a source, and how it is to be opened.
#pragma once

#include <compare>
#include <map>
#include <string>

namespace host {

// A connection over which a transport stream comes. Readers share one when theirs are equal.
struct ReceiverAddress {
  std::string url;
  std::map<std::string, std::string> options;  // of the protocol
  bool isPipe = false;                         // the URL is the path of one
  // NOLINTNEXTLINE(modernize-use-nullptr): there is none
  auto operator<=>(const ReceiverAddress&) const = default;
};

// By the text alone, but for a file that has the form of a URL. Immutable.
class SourceAddress {
 public:
  using Options = std::map<std::string, std::string>;  // of FFmpeg's protocol and container

  explicit SourceAddress(const std::string& source);

  // As FFmpeg is to open it.
  const std::string& name() const { return name_; }

  // Comes over the network, as far as the text says.
  bool isRemote() const { return isRemote_; }
  // Sent indefinitely, a service in a transport stream, which may change. Of an RTP
  // address it is what is mostly there: whether it is so is seen when packets come.
  bool carriesTransportStream() const { return datagrams_ || isConnected_; }
  // Has no connection: a sender that stops and returns is received again.
  bool isDatagrams() const { return datagrams_; }
  bool isRtp() const { return isRtp_; }
  bool isHttp() const { return isHttp_; }
  // A session description, which says what is received and where.
  bool isDescription() const { return isDescription_; }

  // Several readers may take it from one connection, because what comes can be joined at any time:
  // a transport stream by what the address says, or, with the program that is wanted of it, by what
  // the operator says.
  bool isShareable(bool hasProgram) const;
  // Comes in time, whether it is read or not.
  bool isPushed() const { return datagrams_ || scheme_ == "srt"; }

  // The given options, and what opening name() needs besides: above all, which formats and
  // protocols it may lead to (format_whitelist, protocol_whitelist). What comes from the network
  // never leads to a local file, and nothing but what an operator expects behind such an address
  // is a list of other addresses. Options that are given already stay: they may allow more.
  Options OpenOptions(Options options) const;
  // The same of what comes through a pipe or a device: it leads nowhere.
  static Options PipeOptions(Options options);
  // The same of an RTP address without a transport stream.
  static Options RtpOptions(Options options);

  // Where and with which options a transport stream is received. The whitelists are its demuxer's.
  std::string ReceiverUrl() const;
  Options ReceiverOptions(Options options) const;
  // The same without what only the demuxer knows: sources with equal ones share a connection.
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
