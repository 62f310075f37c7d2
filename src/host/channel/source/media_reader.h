// Reads and decodes one source: a file or any URL that FFmpeg opens.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/item_times.h"
#include "host/channel/source/media_error.h"
#include "host/channel/source/media_info.h"
#include "host/channel/source/pmt_monitor.h"
#include "host/channel/source/replacement_input.h"
#include "host/channel/source/rtp_receiver.h"
#include "host/channel/source/source_address.h"
#include "host/channel/source/source_clock.h"
#include "host/channel/source/stream_decoder.h"
#include "host/channel/source/stream_failover.h"
#include "host/channel/source/video_watch.h"
#include "host/config/wall.h"
#include "host/ffmpeg/fragmented_input.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/units.h"

namespace host {

// Gives the best video and the wanted audio of a source, item by item, in the order of the source:
// decoded frames, compressed audio packets, and after each packet its decoded samples. All times
// are on one clock that starts near 0 and continues through wraps, jumps and repeats (SourceClock).
//
// Owned by its channel. Open and Read block, up to the limits of the settings, and belong to one
// thread; Cancel may be called by any thread at any time, also during Open, and makes the blocking
// call end within some milliseconds. A failed reader is thrown away; reopening makes a new one.
class MediaReader {
 public:
  struct Settings {
    std::string source;  // path or URL; "-": the standard input
    config::ChannelOptions options;
    // Is shown in a live wall: a fast probe, and a file is repeated if its options say so.
    bool live = false;
    bool wantVideo = true;
    bool decodeAudio = true;  // false: packets only
    // A demuxer that remembers every packet is exchanged after so many of a stream; about 50 bytes
    // each.
    int maxIndexEntries = 200'000;
  };

  explicit MediaReader(Settings settings);
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // Throws MediaError. A source with only one of video and audio opens, and info() has the reason
  // for the missing one.
  void Open();
  // The next item; EndOfMedia again and again at the end. Throws MediaError, after which the reader
  // is of no more use, but when canGoOn().
  MediaItem Read();
  // After a failure of Read: nothing came for the read limit, but there is no connection that could
  // have broken, and a sender that returns is heard sooner by going on than by opening again.
  bool canGoOn() const { return canGoOn_; }
  void Cancel() { deadline_.Cancel(); }

  // What follows is valid after Open.
  const MediaInfo& info() const { return info_; }
  // Of the chosen audio stream, as the container announces it; null without audio.
  const AVCodecParameters* audioParameters() const { return audioParameters_.get(); }
  // Options of the settings that neither protocol nor container knows.
  const std::vector<std::string>& unknownOptions() const { return unknownOptions_; }
  std::uint64_t damagedPackets() const;
  // How often another stream has taken the place of one that ended, as when a service changes its
  // codec, or the one that was chosen has returned to it: info() and audioParameters() then
  // describe the new one.
  std::uint64_t replacements() const { return replacements_; }
  // How often the source began again.
  std::uint64_t repeats() const { return repeats_; }
  // How often another demuxer took over in the midst of an endless source.
  std::uint64_t exchanges() const { return exchanges_; }

 private:
  // Then it is opened again after all: a router may have forgotten us.
  static constexpr int kMaxSilences = 10;

  // What tells that a file was written again.
  struct FileState {
    std::filesystem::file_time_type written;
    std::uintmax_t size = 0;
    bool operator==(const FileState&) const = default;
  };
  struct Track {
    explicit Track(int index) : streamIndex(index), failover(index) {}

    int streamIndex;
    std::size_t clockStream = 0;
    StreamFailover failover;
    std::string language;  // that is wanted: of the settings, or of the stream that was chosen
    std::optional<StreamDecoder> decoder;
    Time frameDuration = 0;
    std::optional<Orientation> orientation;  // as its frames say
    ItemTimes times;
    std::int64_t jumps = 0;           // of its timestamps
    std::optional<Time> latest;       // source time of the latest packet
    std::optional<Time> resumeAfter;  // what comes of the source up to that time has been given
  };

  bool mayRepeat() const { return settings_.live && settings_.options.repeat; }
  // Throw ffmpeg::Error, or MediaError with more to say.
  void OpenInput();
  void OpenConnection();
  void OpenOtherRtp();
  void OpenHttp();
  void OpenInput(AVIOContext* io, const SourceAddress::Options& wanted);
  void OpenInput(AVIOContext* io, ffmpeg::Options& options);
  void SetOptions(ffmpeg::Options& options, const SourceAddress::Options& wanted) const;
  std::optional<ffmpeg::TappedInput::Bytes> Tap(ffmpeg::TappedInput::Bytes bytes);
  bool IsAwaited(const AVStream& stream) const;
  void ChooseTracks();
  void StartTrack(std::optional<Track>& track, int streamIndex, std::string& whyNot);
  void ReadPacket();
  void WatchIndex();
  void ReadOnWithNextDemuxer();
  void AdoptReplacement();
  // Where the track's stream is in another demuxer of the same source; throws where it is not.
  int StreamIn(const AVFormatContext& input, const Track& track) const;
  void Exchange(ffmpeg::InputFormat next);
  bool IsRepeated(Track& track, std::optional<Time> dts);
  const Track* ChangedTrack() const;
  void HandlePacket(ffmpeg::Packet packet);
  void FollowOther(const AVPacket& packet);
  Time DurationOf(const AVPacket& packet) const;
  bool IsWithdrawn(const Track& track) const;
  void FollowReplacement(Track& track, const AVPacket& packet);
  void AwaitBeginning(AVStream& stream, const AVPacket& packet);
  void Replace(Track& track, int streamIndex);
  void FinishRepetition();
  std::optional<FileState> ReadFileState() const;
  void Rewind();
  void GiveAudioPacket(const AVPacket& packet, bool discontinuity);
  Orientation OrientationOf(const AVFrame& frame);
  void GivePicture(ffmpeg::Frame frame);
  void GiveSamples(ffmpeg::Frame frame);
  void DecodeVideo(const AVPacket& packet);
  void DecodeAudio(const AVPacket& packet);
  bool LiesBehindItsData() const;
  [[noreturn]] void FailForItsIndex() const;
  [[noreturn]] void Fail(int code, bool opening) const;

  const Settings settings_;
  const std::string maskedSource_;
  const SourceAddress address_;
  ffmpeg::IoDeadline deadline_;
  std::optional<ffmpeg::PipeInput> pipe_;              // what input_ reads, when that is a pipe
  std::optional<ffmpeg::TappedInput> connection_;      // or that, of a live transport stream
  RtpReceiver rtp_;                                    // for its datagrams
  PmtMonitor programs_;                                // for all that comes over it
  std::optional<ffmpeg::FragmentedInput> fragments_;   // of either, when it may be fragmented MP4
  std::shared_ptr<ffmpeg::IoDeadline> inputDeadline_;  // of an input that was a replacement
  ffmpeg::InputFormat input_;
  std::optional<ReplacementInput> replacement_;
  int packetsOfInput_ = 0;
  std::int64_t headerEnd_ = 0;  // bytes read before the first packet
  MediaInfo info_;
  ffmpeg::Parameters audioParameters_;
  std::vector<std::string> unknownOptions_;
  std::optional<SourceClock> clock_;
  std::optional<VideoWatch> watch_;  // of a live source with video
  std::optional<Track> video_;
  std::optional<Track> audio_;
  std::map<int, StreamDecoder> awaited_;  // by index: streams of a kind that has no track
  std::deque<MediaItem> ready_;           // what one packet gave, at most
  bool canGoOn_ = false;
  int silences_ = 0;               // read limits in a row without data, of datagrams only
  unsigned knownStreams_ = 0;      // when the source was opened
  std::optional<FileState> file_;  // of a repeated one, when it was opened
  bool gaveInRepetition_ = false;
  bool ended_ = false;
  std::uint64_t repeats_ = 0;
  std::uint64_t replacements_ = 0;
  std::uint64_t exchanges_ = 0;
};

}  // namespace host
