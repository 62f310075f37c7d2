// SourceConnection: opens the demuxer of a source over the right protocol.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/channel/source/program_filter.h"
#include "host/channel/source/psi_tables.h"
#include "host/channel/source/rtp_receiver.h"
#include "host/channel/source/shared_receiver.h"
#include "host/channel/source/source_address.h"
#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/io_deadline.h"

namespace host {

class SharedInputs;

// How a source is read.
struct MediaSettings {
  std::string source;  // path or URL; "-": the standard input
  // A playlist that is read in place of what lies there, and leads to it; empty: none does.
  std::string playlist;
  config::ChannelOptions options;
  config::ProgramChoice program;
  // Null: the source has a connection of its own.
  std::shared_ptr<SharedReceivers> receivers;
  // Null: the source has a demuxer of its own.
  std::shared_ptr<SharedInputs> inputs;
  // Is shown in a live wall: a fast probe, and a file is repeated if its options say so.
  bool live = false;
  bool wantVideo = true;
  bool decodeAudio = true;  // false: packets only
  // Frames for which a canvas of that rate has no place need not be decoded; none: all are.
  std::optional<Ratio> canvasRate{};
  // The demuxer of a live source that keeps an index entry of every packet, about 50 bytes each,
  // is replaced after that many packets of a stream.
  int maxIndexEntries = 200'000;
};

// Several readers may take its bytes from one connection, each with a demuxer of its own: what
// comes can be joined at any time.
bool MayShareConnection(const MediaSettings& settings);
// Why it fails when it is not open, or sends nothing, within the limit.
std::string LateOpening(const MediaSettings& settings);
std::string LateData(const MediaSettings& settings);

// After that many read limits in a row without data, a source of datagrams is opened again after
// all: a router may have dropped it.
inline constexpr int kMaxSilences = 10;

// Decides by the address what is under the demuxer:
//
//   playlist given   TextInput
//   pipe             PipeInput, FragmentedInput
//   datagrams        TappedInput: RTP in order, one program, PMT monitor
//   shared           SharedReceiver: RTP in order, one program; TappedInput: PMT monitor
//   endless HTTP     TappedInput, FragmentedInput
//   everything else  FFmpeg's own protocols
//
// and explains what fails. Owned by a MediaInput, whose demuxers it outlives; its thread, but for
// the deadline's Cancel.
class SourceConnection {
 public:
  // settings outlive the connection. isChanged: asked after each block of a transport stream; the
  // stream ends there when a stream that is read has changed its form.
  SourceConnection(const MediaSettings& settings, std::function<bool()> isChanged);

  // Within the open limit. Throws MediaError.
  ffmpeg::InputFormat Open();
  // Of fragmented MP4 that has ended before a fragment: another demuxer, which continues with that
  // one. Throws MediaError.
  ffmpeg::InputFormat OpenAtNextFragment();
  // Datagrams that did not come within the limit: the next call receives on. False when there is a
  // connection that may have broken.
  bool ReceiveOn();

  // Throw an error about this source: one that says all, one for a call that ended with an AVERROR
  // code, and one about a file of the MP4 family that cannot be sought in.
  [[noreturn]] void Fail(MediaError::Kind kind, const std::string& reason) const;
  [[noreturn]] void FailFor(int code, bool opening) const;
  [[noreturn]] void FailForItsIndex() const;

  const SourceAddress& address() const { return address_; }
  ffmpeg::IoDeadline& deadline() { return deadline_; }
  // None unless the source may be fragmented MP4.
  std::optional<ffmpeg::FragmentedInput>& fragments() { return fragments_; }
  // Whether the PMT first announced the stream of that PID in another form.
  bool HasChanged(int pid) const { return programs_.HasChanged(pid); }
  // Why nothing of the wanted program comes any more; none as long as it may.
  std::optional<std::string> missingProgram() const;
  // Of the program that alone comes over the connection; 0: all that there are.
  int onlyProgram() const;
  const std::vector<std::string>& unknownOptions() const { return unknownOptions_; }
  // RTP packets that never came.
  std::uint64_t packetsLost() const {
    return subscription_ ? subscription_->packetsLost() : rtp_.lost();
  }

 private:
  // Throw ffmpeg::Error, or MediaError with more to say.
  ffmpeg::InputFormat OpenSource();
  ffmpeg::InputFormat OpenTapped();
  bool isPipe() const;
  bool isShared() const;
  void Connect(ffmpeg::Options& options);
  void Disconnect();
  bool carriesOtherRtp() const;
  ffmpeg::InputFormat OpenOtherRtp();
  ffmpeg::InputFormat OpenHttp();
  ffmpeg::InputFormat OpenDemuxer(AVIOContext* io, const SourceAddress::Options& wanted);
  ffmpeg::InputFormat OpenDemuxer(AVIOContext* io, ffmpeg::Options& options);
  void SetOptions(ffmpeg::Options& options, const SourceAddress::Options& wanted) const;
  std::optional<ffmpeg::TappedInput::Bytes> Tap(ffmpeg::TappedInput::Bytes bytes);

  const MediaSettings& settings_;
  const std::string maskedSource_;
  const SourceAddress address_;
  const std::function<bool()> isChanged_;
  ffmpeg::IoDeadline deadline_;
  std::optional<ffmpeg::TextInput> playlist_;      // what is under the demuxer
  std::optional<ffmpeg::PipeInput> pipe_;          // or that
  std::optional<ffmpeg::TappedInput> connection_;  // or that
  RtpReceiver rtp_;                                // for its datagrams
  std::optional<ProgramReader> program_;           // that is wanted of it
  // In place of the three: what another thread receives, for this source and others.
  std::unique_ptr<SharedReceiver::Subscription> subscription_;
  PmtMonitor programs_;                               // for all that comes over the connection
  std::optional<ffmpeg::FragmentedInput> fragments_;  // of either
  std::vector<std::string> unknownOptions_;
};

}  // namespace host
