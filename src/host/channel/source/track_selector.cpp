#include "host/channel/source/track_selector.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/media_info.h"
#include "host/channel/source/program_filter.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

// A pause this long of a returning stream: its return is counted from the start again.
constexpr Time kMaxPause = StreamFailover::kStable / 2;
// A returning stream without a keyframe for this long has none.
constexpr Time kMaxWaitForKeyframe = 10 * kSecond;

}  // namespace

void StreamFailover::OnPacket(Time duration) {
  for (auto each = candidates_.begin(); each != candidates_.end();) {
    Candidate& candidate = each->second;
    candidate.kept.clear();
    candidate.keptBytes = 0;
    candidate.read += duration;
    const bool isReturning = IsChosen(each->first) && candidate.read <= kMaxPause;
    each = isReturning ? std::next(each) : candidates_.erase(each);
  }
}

// Whether another candidate is better and not much behind.
bool StreamFailover::IsPreceded(const Candidate& candidate) const {
  return std::any_of(candidates_.begin(), candidates_.end(), [&](const auto& entry) {
    const auto& [stream, other] = entry;
    return &other != &candidate &&
           (IsChosen(stream) || (other.isInWantedLanguage && !candidate.isInWantedLanguage)) &&
           other.received >= candidate.received / 2;
  });
}

void StreamFailover::LimitKept() {
  const auto keepsLess = [](const auto& a, const auto& b) {
    return a.second.keptBytes < b.second.keptBytes;
  };
  const auto all = [this] {
    return std::accumulate(
        candidates_.begin(), candidates_.end(), std::size_t{0},
        [](std::size_t sum, const auto& entry) { return sum + entry.second.keptBytes; });
  };
  while (all() > kMaxKeptBytes) {
    Candidate& largest =
        std::max_element(candidates_.begin(), candidates_.end(), keepsLess)->second;
    largest.keptBytes -= static_cast<std::size_t>(largest.kept.front()->size);
    largest.kept.pop_front();
  }
}

bool StreamFailover::OnOther(const AVPacket& packet, const Candidacy& candidacy) {
  Candidate& candidate = candidates_[packet.stream_index];
  candidate.received += candidacy.duration;
  candidate.read = 0;
  ++candidate.packets;
  candidate.isInWantedLanguage = candidacy.isInWantedLanguage;
  candidate.kept.push_back(ffmpeg::RefPacket(packet));
  candidate.keptBytes += static_cast<std::size_t>(packet.size);
  LimitKept();
  if (candidacy.replacesWithdrawn) {
    return candidate.packets >= kPacketsAfterWithdrawal;
  }
  if (IsChosen(packet.stream_index)) {
    const bool isKeyframe = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    return candidate.received >= (isKeyframe ? kStable : kMaxWaitForKeyframe);
  }
  return candidate.received >= kSilence && !IsPreceded(candidate);
}

std::vector<ffmpeg::Packet> StreamFailover::TakeKept(int stream) {
  std::deque<ffmpeg::Packet> kept = std::move(candidates_[stream].kept);
  candidates_.clear();
  return {std::move_iterator(kept.begin()), std::move_iterator(kept.end())};
}

namespace {

constexpr Time kDefaultFrameDuration = 400'000;
constexpr Time kDefaultPacketDuration = kSecond / 50;

// Duration of an audio packet. The demuxer returns the first ones before it knows their rate,
// without durations and, except for the first, without timestamps. 0 for video.
Time AudioDuration(AVStream& stream, int bytes) {
  constexpr int kAacSamples = 1024;
  AVCodecParameters& parameters = *stream.codecpar;
  if (parameters.codec_type != AVMEDIA_TYPE_AUDIO || parameters.sample_rate <= 0) {
    return 0;
  }
  int samples = av_get_audio_frame_duration2(&parameters, bytes);
  if (samples <= 0 && parameters.codec_id == AV_CODEC_ID_AAC) {
    samples = kAacSamples;
  }
  return av_rescale(std::max(samples, 0), kSecond, parameters.sample_rate);
}

}  // namespace

bool TrackSelector::StartTrack(TrackKind kind, int index, Time frameDuration, std::string& whyNot) {
  try {
    decoder_.Start(kind, *input_.context().streams[index], frameDuration);
  } catch (const ffmpeg::Error& error) {
    whyNot = error.what();
    return false;
  }
  input_.Select(kind, index);
  track(kind).emplace(Track{StreamFailover(index)});
  whyNot.clear();
  return true;
}

// Audio of a live source of which nothing has arrived yet that shows its parameters.
bool TrackSelector::IsAwaited(const AVStream& stream) const {
  return info_.kind != SourceKind::kFile && stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO &&
         stream.codecpar->sample_rate <= 0;
}

void TrackSelector::Choose() {
  AVFormatContext& context = input_.context();
  info_ = DescribeMedia(context);
  knownStreams_ = input_.openedStreams();
  decoder_.StartClock();
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    context.streams[i]->discard = AVDISCARD_ALL;
  }
  info_.programs = DescribePrograms(context);
  ChooseProgram();
  const AVProgram* const program = program_.isGiven() ? FindProgram(context, program_) : nullptr;
  const int video = ChooseVideoStream(context, program);
  if (!settings_.wantVideo) {
    info_.noVideoReason = "video is switched off";
  } else {
    ChooseVideo(video);
  }
  const config::AudioOptions& audio = settings_.options.audio;
  if (!audio.enabled) {
    info_.noAudioReason = "audio is switched off";
    info_.audioAbsence = AudioAbsence::kOff;
  } else {
    ChooseAudio(ChooseAudioStream(context, audio.track, audio.language, video, program));
  }
  if (std::string name = CurrentServiceName(); !name.empty()) {
    info_.serviceName = std::move(name);
  }
  if (!decoder_.has(TrackKind::kVideo) && !decoder_.has(TrackKind::kAudio)) {
    input_.Fail(MediaError::Kind::kNoStreams,
                "nothing to show: " + info_.noVideoReason + ", and " + info_.noAudioReason);
  }
}

void TrackSelector::ChooseProgram() {
  config::ProgramChoice wanted = settings_.program;
  if (const int number = input_.onlyProgram(); number != 0) {
    wanted = {number, {}};
  }
  if (!wanted.isGiven()) {
    return;
  }
  const AVFormatContext& context = input_.context();
  const AVProgram* const program = FindProgram(context, wanted);
  if (program == nullptr) {
    input_.Fail(MediaError::Kind::kNoStreams, NoProgram(settings_.program, ProgramNames(context)));
  }
  program_.number = program->id;
  std::erase_if(info_.audioTracks,
                [&](const AudioInfo& each) { return !IsIn(*program, each.streamIndex); });
  info_.serviceName.clear();
}

bool TrackSelector::IsWanted(int index) const {
  const AVProgram* const program =
      program_.isGiven() ? FindProgram(input_.context(), program_) : nullptr;
  return !program_.isGiven() || (program != nullptr && IsIn(*program, index));
}

std::string TrackSelector::CurrentServiceName() const {
  AVFormatContext& context = input_.context();
  const AVProgram* program = nullptr;
  if (program_.isGiven()) {
    program = FindProgram(context, program_);
  } else if (decoder_.has(TrackKind::kVideo) || decoder_.has(TrackKind::kAudio)) {
    const TrackKind kind = decoder_.has(TrackKind::kVideo) ? TrackKind::kVideo : TrackKind::kAudio;
    program = av_find_program_from_stream(&context, nullptr, input_.stream(kind).index);
  }
  const char* const name = ServiceName(program);
  return name != nullptr ? ffmpeg::Printable(name) : "";
}

// The name comes in a table of its own, often after the source is open, and may change.
void TrackSelector::FollowServiceName() {
  constexpr int kPeriod = 32;
  if (--packetsToName_ > 0 || input_.context().nb_programs == 0) {
    return;
  }
  packetsToName_ = kPeriod;
  if (std::string name = CurrentServiceName(); !name.empty() && name != info_.serviceName) {
    info_.serviceName = std::move(name);
    ++renames_;
  }
}

void TrackSelector::ChooseVideo(int index) {
  info_.noVideoReason = "it has no video";
  if (index < 0) {
    return;
  }
  AVFormatContext& context = input_.context();
  VideoInfo video = DescribeVideo(context, *context.streams[index]);
  const Time frameDuration =
      video.frameRate.positive() ? FrameDuration(video.frameRate) : kDefaultFrameDuration;
  if (StartTrack(TrackKind::kVideo, index, frameDuration, info_.noVideoReason)) {
    info_.video = std::move(video);
  }
}

void TrackSelector::ChooseAudio(int index) {
  AVFormatContext& context = input_.context();
  const config::AudioOptions& wanted = settings_.options.audio;
  info_.noAudioReason = "it has no audio";
  info_.audioAbsence = AudioAbsence::kNotInSource;
  if (wanted.track > info_.audioTracks.size()) {
    info_.noAudioReason = "it has no audio track " + std::to_string(wanted.track) + " (of " +
                          std::to_string(info_.audioTracks.size()) + ")";
    info_.audioAbsence = AudioAbsence::kNoTrack;
  } else if (index >= 0 && !IsAwaited(*context.streams[index])) {
    info_.audioAbsence = AudioAbsence::kUndecodable;
    if (StartTrack(TrackKind::kAudio, index, 0, info_.noAudioReason)) {
      const AVStream& stream = *context.streams[index];
      info_.audioAbsence = AudioAbsence::kNone;
      info_.audio = DescribeAudio(stream);
      track(TrackKind::kAudio)->language =
          wanted.language.empty() ? info_.audio->language : wanted.language;
      audioParameters_ = ffmpeg::CopyParameters(*stream.codecpar);
      return;
    }
  }
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    if (IsAwaited(*context.streams[i]) && IsWanted(static_cast<int>(i))) {
      context.streams[i]->discard = AVDISCARD_DEFAULT;
      info_.noAudioReason = "its audio has not begun";
      info_.audioAbsence = AudioAbsence::kNotStarted;
    }
  }
}

void TrackSelector::Handle(ffmpeg::Packet packet) {
  FollowServiceName();
  const std::optional<TrackKind> kind = input_.KindOf(packet->stream_index);
  if (!kind) {
    HandleOther(*packet);
    return;
  }
  const Time duration = DurationOf(*packet);
  track(*kind)->failover.OnPacket(duration);
  decoder_.Decode(*kind, std::move(packet), duration);
}

void TrackSelector::OnReplacedDemuxer() {
  for (const TrackKind kind : kTrackKinds) {
    if (track(kind)) {
      track(kind)->failover = StreamFailover(input_.stream(kind).index);
    }
  }
  awaited_.clear();
  knownStreams_ = input_.context().nb_streams;
}

// A packet of a stream that is not one of the tracks.
void TrackSelector::HandleOther(const AVPacket& packet) {
  AVStream& stream = *input_.context().streams[packet.stream_index];
  const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
  if ((!isVideo && stream.codecpar->codec_type != AVMEDIA_TYPE_AUDIO) || IsCoverArt(stream)) {
    return;
  }
  if (!IsWanted(stream.index)) {
    stream.discard = AVDISCARD_ALL;
    return;
  }
  const TrackKind kind = isVideo ? TrackKind::kVideo : TrackKind::kAudio;
  if (track(kind)) {
    DetectReplacement(kind, packet);
  } else if ((isVideo ? settings_.wantVideo : settings_.options.audio.enabled) &&
             info_.kind != SourceKind::kFile) {
    DetectNewStream(kind, stream, packet);
  }
}

// 0 if it is not known.
Time TrackSelector::DurationOf(const AVPacket& packet) const {
  AVStream& stream = *input_.context().streams[packet.stream_index];
  const Time duration = ffmpeg::ToDuration(packet.duration, stream.time_base);
  return duration > 0 ? duration : AudioDuration(stream, packet.size);
}

// The container lists programs, and none of them has the track's stream any longer.
bool TrackSelector::IsWithdrawn(TrackKind kind) const {
  AVFormatContext& context = input_.context();
  return context.nb_programs > 0 &&
         av_find_program_from_stream(&context, nullptr, input_.stream(kind).index) == nullptr;
}

// A stream that began after the opening may replace the one that is read; the latter may return.
void TrackSelector::DetectReplacement(TrackKind kind, const AVPacket& packet) {
  Track& replaced = *track(kind);
  AVFormatContext& context = input_.context();
  const int index = packet.stream_index;
  if (static_cast<unsigned>(index) < knownStreams_ && !replaced.failover.IsChosen(index)) {
    return;
  }
  StreamFailover::Candidacy candidacy;
  candidacy.duration = DurationOf(packet);
  if (candidacy.duration == 0) {
    const Time frameDuration = decoder_.frameDuration(kind);
    candidacy.duration = frameDuration > 0 ? frameDuration : kDefaultPacketDuration;
  }
  candidacy.isInWantedLanguage =
      !replaced.language.empty() &&
      DescribeAudio(*context.streams[index]).language == replaced.language;
  candidacy.replacesWithdrawn =
      IsWithdrawn(kind) && av_find_program_from_stream(&context, nullptr, index) != nullptr;
  if (replaced.failover.OnOther(packet, candidacy)) {
    std::vector<ffmpeg::Packet> kept = replaced.failover.TakeKept(index);
    Replace(kind, index);
    for (ffmpeg::Packet& each : kept) {
      Handle(std::move(each));
    }
  }
}

// A stream of a kind that was missing, or sent nothing, when the source was opened. The source is
// opened again only once something of the stream was decoded, so that a stream that cannot be
// decoded interrupts nothing.
void TrackSelector::DetectNewStream(TrackKind kind, AVStream& stream, const AVPacket& packet) {
  bool begins = false;
  try {
    StreamDecoder& decoder = awaited_.try_emplace(stream.index, stream, 1).first->second;
    decoder.Decode(packet, [&](const ffmpeg::Frame&) { begins = true; });
    if (begins) {
      input_.OnProbed(stream.index, *decoder.Form());
    }
  } catch (const ffmpeg::Error&) {
    stream.discard = AVDISCARD_ALL;
  }
  if (begins) {
    input_.Fail(MediaError::Kind::kFailed, std::string("its ") + NameOf(kind) + " begins");
  }
}

void TrackSelector::Replace(TrackKind kind, int index) {
  AVFormatContext& context = input_.context();
  AVStream& stream = *context.streams[index];
  decoder_.Replace(kind, stream);
  input_.Select(kind, index);
  if (kind == TrackKind::kVideo) {
    info_.video = DescribeVideo(context, stream);
  } else {
    info_.audio = DescribeAudio(stream);
    audioParameters_ = ffmpeg::CopyParameters(*stream.codecpar);
  }
  ++replacements_;
}

}  // namespace host
