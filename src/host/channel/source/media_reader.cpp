#include "host/channel/source/media_reader.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/channel/source/describe_media.h"
#include "host/channel/source/http_source.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

constexpr Time kDefaultFrameDuration = 400'000;
// A longer step forwards in a source whose timestamps are known to jump is no gap.
constexpr Time kMaxGap = 10 * kSecond;
// To see why a file on a server did not open in time.
constexpr std::chrono::milliseconds kSecondLook{2000};
constexpr const char* kSeekable = "seekable";

std::string Seconds(std::chrono::milliseconds limit) {
  std::string text = std::to_string(limit.count() / 1000);
  if (limit.count() % 1000 != 0) {
    text += "." + std::to_string(limit.count() % 1000 / 100);
  }
  return text + " s";
}

bool IsMp4(const AVFormatContext& input) {
  return std::string_view(input.iformat->name).find("mp4") != std::string_view::npos;
}

}  // namespace

MediaReader::MediaReader(Settings settings)
    : settings_(std::move(settings)),
      maskedSource_(ffmpeg::MaskUrl(settings_.source)),
      address_(settings_.source) {
  ffmpeg::RememberSecrets(settings_.source, settings_.options.options);
}

MediaReader::~MediaReader() = default;

void MediaReader::Fail(int code, bool opening) const {
  using Kind = MediaError::Kind;
  if (code == AVERROR(ENOMEM) && address_.isRemote()) {
    throw MediaError(Kind::kFailed, "it asks for more memory than a source may have",
                     maskedSource_);
  }
  if (code == AVERROR(ENOMEM)) {
    throw std::bad_alloc();
  }
  if (deadline_.cancelled()) {
    throw MediaError(Kind::kCancelled, "stopped", maskedSource_);
  }
  // The packet that the ended call still gave may have come before its failure.
  if (deadline_.expired() || code == AVERROR_EXIT) {
    throw MediaError(
        Kind::kTimedOut,
        opening ? "did not open within " + Seconds(Milliseconds(settings_.options.openLimit))
                : "no data for " + Seconds(Milliseconds(settings_.options.readLimit)),
        maskedSource_);
  }
  const std::string text = ffmpeg::ErrorText(code);
  if (opening && code == AVERROR(ENOENT)) {
    throw MediaError(Kind::kNotFound, "no such file", maskedSource_);
  }
  if (opening && (code == AVERROR_INVALIDDATA || code == AVERROR_EOF)) {
    throw MediaError(Kind::kNotMedia, "not a media file, or damaged (" + text + ")", maskedSource_);
  }
  // What FFmpeg answers for a format or a protocol that is not on the source's whitelist.
  const bool mayBeForbidden =
      opening && code == AVERROR(EINVAL) && (pipe_ || !address_.OpenOptions({}).empty());
  const char* const hint =
      mayBeForbidden ? "; its format may need \"format_whitelist\" among its options" : "";
  throw MediaError(Kind::kFailed,
                   (opening ? "cannot be opened: " : "cannot be read further: ") + text + hint,
                   maskedSource_);
}

// The index of a file in the MP4 family came behind the data, which cannot be gone back to. A
// server may have promised that they can.
bool MediaReader::LiesBehindItsData() const {
  if (input_->pb == nullptr ||
      ((input_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0 && !address_.isHttp()) ||
      !IsMp4(*input_)) {
    return false;
  }
  for (unsigned i = 0; i < input_->nb_streams; ++i) {
    const AVIndexEntry* const first = avformat_index_get_entry(input_->streams[i], 0);
    if (first != nullptr && first->pos < headerEnd_) {
      return true;
    }
  }
  return false;
}

void MediaReader::FailForItsIndex() const {
  throw MediaError(MediaError::Kind::kFailed,
                   "its index comes behind its data, but it can only be read from its beginning: "
                   "write it with the index first (ffmpeg: -movflags +faststart)" +
                       std::string(address_.isHttp() ? " or use a server with byte ranges" : ""),
                   maskedSource_);
}

void MediaReader::Open() {
  deadline_.Arm(Milliseconds(settings_.options.openLimit));
  if (mayRepeat()) {
    file_ = ReadFileState();
  }
  try {
    OpenInput();
  } catch (const ffmpeg::Error& error) {
    const bool isLate = deadline_.expired() && !deadline_.cancelled();
    if (isLate && address_.isHttp()) {
      // Without ranges a whole file is read before its index comes.
      deadline_.Arm(kSecondLook);
      ffmpeg::Options options;
      SetOptions(options, settings_.options.options);
      if (ServesDataFirst(address_.name(), options, deadline_)) {
        FailForItsIndex();
      }
    }
    Fail(isLate ? AVERROR_EXIT : error.code(), true);
  }
  // FFmpeg draws any text file as a terminal would: for a wall that is a wrong path, not a frame.
  if (std::string_view(input_->iformat->name) == "tty") {
    Fail(AVERROR_INVALIDDATA, true);
  }
  const int result = avformat_find_stream_info(input_.get(), nullptr);
  if (result < 0 || deadline_.cancelled()) {
    Fail(result, true);
  }
  deadline_.Disarm();
  ChooseTracks();
}

void MediaReader::OpenInput() {
  if (ffmpeg::PipeInput::Serves(settings_.source)) {
    pipe_.emplace(settings_.source, deadline_);
    fragments_.emplace(pipe_->io());
    OpenInput(fragments_->io(), SourceAddress::PipeOptions(settings_.options.options));
  } else if (address_.carriesTransportStream()) {
    OpenConnection();
  } else if (address_.isHttp()) {
    OpenHttp();
  } else {
    OpenInput(nullptr, address_.OpenOptions(settings_.options.options));
  }
}

void MediaReader::OpenHttp() {
  SourceAddress::Options options = address_.OpenOptions(settings_.options.options);
  try {
    OpenInput(nullptr, options);
  } catch (const ffmpeg::Error& error) {
    if (!MayKnowNoRanges(error.code()) || deadline_.ShouldStop() ||
        !options.try_emplace(kSeekable, "0").second) {
      throw;
    }
    OpenInput(nullptr, options);
  }
  // One that never ends is read through our hands, see FragmentedInput.
  if (IsMp4(*input_) && (input_->pb->seekable & AVIO_SEEKABLE_NORMAL) == 0 &&
      avio_size(input_->pb) < 0) {
    input_.reset();
    OpenConnection();
  }
}

void MediaReader::OpenConnection() {
  ffmpeg::Options options;
  SetOptions(options, address_.ReceiverOptions(settings_.options.options));
  const auto tap = [this](ffmpeg::TappedInput::Bytes bytes) { return Tap(bytes); };
  connection_.emplace(address_.ReceiverUrl(), deadline_, options, tap);
  AVIOContext* io = connection_->io();
  if (!address_.isDatagrams()) {
    io = fragments_.emplace(io).io();
  }
  // What the protocol has used is not the demuxer's.
  for (const auto& [key, value] : address_.OpenOptions({})) {
    const auto given = settings_.options.options.find(key);
    options.Set(key.c_str(), given != settings_.options.options.end() ? given->second : value);
  }
  try {
    OpenInput(io, options);
  } catch (const ffmpeg::Error&) {
    if (!rtp_.carriesOther()) {
      throw;
    }
    connection_.reset();
    OpenOtherRtp();
  }
}

// Audio or video by itself: FFmpeg's own receiver knows some of it without a description.
void MediaReader::OpenOtherRtp() {
  if (address_.isRtp()) {
    try {
      OpenInput(nullptr, SourceAddress::RtpOptions(settings_.options.options));
      return;
    } catch (const ffmpeg::Error&) {
      if (deadline_.cancelled() || deadline_.expired()) {
        throw;
      }
    }
  }
  throw MediaError(
      MediaError::Kind::kNotMedia,
      "its RTP packets carry no transport stream; open an SDP file that says what they carry",
      maskedSource_);
}

std::optional<ffmpeg::TappedInput::Bytes> MediaReader::Tap(ffmpeg::TappedInput::Bytes bytes) {
  if (address_.isDatagrams()) {
    bytes = rtp_.Take(bytes, RtpReceiver::Clock::now());
  }
  programs_.Feed(bytes);
  const bool ends = ChangedTrack() != nullptr || rtp_.carriesOther();
  return ends ? std::nullopt : std::optional(bytes);
}

void MediaReader::SetOptions(ffmpeg::Options& options, const SourceAddress::Options& wanted) const {
  if (settings_.live) {
    // Instead of twenty frames, which is most of a second.
    options.Set("fpsprobesize", "3");
  }
  if (settings_.live && address_.isRemote()) {
    // Instead of five seconds or seven, when a stream is announced of which nothing comes; longer
    // than mostly between two frames that one can begin with.
    options.Set("analyzeduration", "2500000");  // microseconds
  }
  for (const auto& [key, value] : wanted) {
    options.Set(key.c_str(), value);
  }
}

void MediaReader::OpenInput(AVIOContext* io, const SourceAddress::Options& wanted) {
  ffmpeg::Options options;
  SetOptions(options, wanted);
  OpenInput(io, options);
}

void MediaReader::OpenInput(AVIOContext* io, ffmpeg::Options& options) {
  input_ = ffmpeg::OpenInput(address_.name(), io, options, deadline_);
  headerEnd_ = input_->pb != nullptr ? avio_tell(input_->pb) : 0;
  unknownOptions_ = options.UnusedKeys();
}

void MediaReader::StartTrack(std::optional<Track>& track, int streamIndex, std::string& whyNot) {
  AVStream& stream = *input_->streams[streamIndex];
  track.emplace(streamIndex);
  try {
    track->decoder.emplace(stream, settings_.options.decoderThreads);
  } catch (const ffmpeg::Error& error) {
    track.reset();
    whyNot = error.what();
    return;
  }
  track->clockStream = clock_->AddStream(WrapPeriod(stream));
  stream.discard = AVDISCARD_DEFAULT;
}

// Audio of a live source of which nothing has come yet that would show its form.
bool MediaReader::IsAwaited(const AVStream& stream) const {
  return info_.kind != SourceKind::kFile && stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO &&
         stream.codecpar->sample_rate <= 0;
}

void MediaReader::ChooseTracks() {
  info_ = DescribeMedia(*input_);
  knownStreams_ = input_->nb_streams;
  const bool mayJump =
      (input_->iformat->flags & AVFMT_TS_DISCONT) != 0 || info_.kind != SourceKind::kFile;
  clock_.emplace(mayJump ? std::optional(kMaxGap) : std::nullopt,
                 ffmpeg::ToTime(input_->start_time, AV_TIME_BASE_Q));
  for (unsigned i = 0; i < input_->nb_streams; ++i) {
    input_->streams[i]->discard = AVDISCARD_ALL;
  }

  const int video = ChooseVideoStream(*input_);
  info_.noVideoReason = settings_.wantVideo ? "it has no video" : "video is switched off";
  if (settings_.wantVideo && video >= 0) {
    AVStream& stream = *input_->streams[video];
    StartTrack(video_, video, info_.noVideoReason);
    if (video_) {
      info_.noVideoReason.clear();
      info_.video = DescribeVideo(*input_, stream);
      video_->frameDuration = info_.video->frameRate.positive()
                                  ? FrameDuration(info_.video->frameRate)
                                  : kDefaultFrameDuration;
    }
  }

  const int audio = ChooseAudioStream(*input_, settings_.options.audio.track,
                                      settings_.options.audio.language, video);
  info_.noAudioReason =
      settings_.options.audio.enabled ? "it has no audio" : "audio is switched off";
  info_.audioAbsence =
      settings_.options.audio.enabled ? AudioAbsence::kNotInSource : AudioAbsence::kOff;
  if (settings_.options.audio.enabled && settings_.options.audio.track > info_.audioTracks.size()) {
    info_.noAudioReason = "it has no audio track " + std::to_string(settings_.options.audio.track) +
                          " (of " + std::to_string(info_.audioTracks.size()) + ")";
    info_.audioAbsence = AudioAbsence::kNoTrack;
  } else if (settings_.options.audio.enabled && audio >= 0 && !IsAwaited(*input_->streams[audio])) {
    StartTrack(audio_, audio, info_.noAudioReason);
    info_.audioAbsence = audio_ ? AudioAbsence::kNone : AudioAbsence::kUndecodable;
    if (audio_) {
      info_.noAudioReason.clear();
      info_.audio = DescribeAudio(*input_->streams[audio]);
      audio_->language = settings_.options.audio.language.empty()
                             ? info_.audio->language
                             : settings_.options.audio.language;
      audioParameters_ = ffmpeg::CopyParameters(*input_->streams[audio]->codecpar);
    }
  }

  for (unsigned i = 0; i < input_->nb_streams && settings_.options.audio.enabled && !audio_; ++i) {
    if (IsAwaited(*input_->streams[i])) {
      input_->streams[i]->discard = AVDISCARD_DEFAULT;
      info_.noAudioReason = "its audio has not begun";
      info_.audioAbsence = AudioAbsence::kNotStarted;
    }
  }

  if (video_ && info_.kind != SourceKind::kFile) {
    watch_.emplace(Milliseconds(settings_.options.readLimit),
                   std::chrono::microseconds(video_->frameDuration / 10));
  }

  if (!video_ && !audio_) {
    throw MediaError(MediaError::Kind::kNoStreams,
                     "nothing to show: " + info_.noVideoReason + ", and " + info_.noAudioReason,
                     maskedSource_);
  }
}

}  // namespace host
