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
#include "host/ffmpeg/mask.h"

namespace host {

class SharedInputs;

// How a source is read.
struct MediaSettings {
  std::string source;  // path or URL; "-": the standard input
  // A playlist that is read in place of the source, and leads to it; empty: none.
  std::string playlist;
  config::ChannelOptions options;
  config::ProgramChoice program;
  // Null: the source has a connection of its own.
  std::shared_ptr<SharedReceivers> receivers;
  // Null: the source has a demuxer of its own.
  std::shared_ptr<SharedInputs> inputs;
  // Shown in a live wall: a fast probe, and a file is repeated if its options say so.
  bool live = false;
  bool wantVideo = true;
  bool decodeAudio = true;  // false: packets only
  // Frames that a canvas of this rate does not show need not be decoded; none: all are.
  std::optional<Ratio> canvasRate{};
  // A demuxer that keeps an index entry for every packet, about 50 bytes each, is replaced after
  // this many packets of a stream, if the source is live.
  int maxIndexEntries = 200'000;
};

// Whether several readers may take the bytes of the source from one connection, each with a demuxer
// of its own, because they can join the stream at any time.
bool MayShareConnection(const MediaSettings& settings);
// The reason when a source does not open, or sends nothing, within the limit.
std::string LateOpening(const MediaSettings& settings);
std::string LateData(const MediaSettings& settings);

// After this many consecutive read limits without data, a source of datagrams is opened again after
// all: a router may have dropped its multicast group.
inline constexpr int kMaxSilences = 10;

// Decides by the address what the demuxer reads from:
//
//   playlist given   TextInput
//   pipe             PipeInput, FragmentedInput
//   datagrams        TappedInput: RTP in order, one program, PMT monitor
//   shared           SharedReceiver: RTP in order, one program; TappedInput: PMT monitor
//   endless HTTP     TappedInput, FragmentedInput
//   everything else  FFmpeg's own protocols
//
// and explains failures. Owned by a MediaInput, whose demuxers it outlives, and called on its
// thread, except for the deadline's Cancel.
class SourceConnection {
 public:
  // settings outlive the connection. isChanged: called after each block of a transport stream;
  // whether an elementary stream that is read has changed its form, which ends reading.
  SourceConnection(const MediaSettings& settings, std::function<bool()> isChanged);

  // Within the open limit. Throws MediaError.
  ffmpeg::InputFormat Open();
  // For fragmented MP4 that has ended before a fragment: a new demuxer, which continues with that
  // fragment. Throws MediaError.
  ffmpeg::InputFormat OpenAtNextFragment();
  // After datagrams did not arrive within the limit: lets the next call receive on. False when
  // there is a connection that may have broken.
  bool ReceiveOn();

  // Throw an error about this source: with this reason, for a call that ended with an AVERROR code,
  // or about a file of the MP4 family that is not seekable.
  [[noreturn]] void Fail(MediaError::Kind kind, const std::string& reason) const;
  [[noreturn]] void FailFor(int code, bool opening) const;
  [[noreturn]] void FailForItsIndex() const;

  const SourceAddress& address() const { return address_; }
  ffmpeg::IoDeadline& deadline() { return deadline_; }
  // None unless the source may be fragmented MP4.
  std::optional<ffmpeg::FragmentedInput>& fragments() { return fragments_; }
  // Whether the PMT first announced the stream of this PID in another form.
  bool HasChanged(int pid) const { return programs_.HasChanged(pid); }
  // Why there is no more data of the wanted program; none while there may be.
  std::optional<std::string> missingProgram() const;
  // Number of the only program that is delivered; 0: all are.
  int onlyProgram() const;
  const std::vector<std::string>& unknownOptions() const { return unknownOptions_; }
  // RTP packets that never arrived.
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
  const ffmpeg::Secrets secrets_;
  const SourceAddress address_;
  const std::function<bool()> isChanged_;
  ffmpeg::IoDeadline deadline_;
  // The demuxer reads from one of these three, or through FFmpeg's own protocols.
  std::optional<ffmpeg::TextInput> playlist_;
  std::optional<ffmpeg::PipeInput> pipe_;
  std::optional<ffmpeg::TappedInput> connection_;
  RtpReceiver rtp_;                       // of the connection's datagrams
  std::optional<ProgramReader> program_;  // the wanted one of the connection
  // The connection's source if it is shared: receives RTP and filters the program.
  std::unique_ptr<SharedReceiver::Subscription> subscription_;
  PmtMonitor programs_;                               // of everything from the connection
  std::optional<ffmpeg::FragmentedInput> fragments_;  // of the pipe or the connection
  std::vector<std::string> unknownOptions_;
};

}  // namespace host
