#include "host/output/output_session.h"

#include <algorithm>
#include <limits>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/ffmpeg/error.h"
#include "host/output/container.h"
#include "host/output/output_files.h"

namespace host {
namespace {

constexpr int kUnknownRate = 48'000;
constexpr int kUnknownChannels = 2;
// FLV timestamps have 31 bits of milliseconds: 24.8 days.
constexpr Time kMaxFlvLength = Time{24} * 24 * 3600 * kSecond;
// FLV, and RTMP with it, has one track of audio.
std::size_t MaxAudioTracks(const std::string& format) {
  return format == "flv" ? 1 : std::numeric_limits<std::size_t>::max();
}

// What a transport stream carries has to arrive before it is due.
Time LatenessIn(const Muxer::Settings& settings) {
  const AVOutputFormat* const container = FindContainer(settings.format, settings.url);
  const Time delay = container != nullptr ? DecoderDelay(*container, settings.lowDelay) : 0;
  return delay > 0 ? std::min(Interleaver::kMaxLateness, delay - kSecond / 10)
                   : Interleaver::kMaxLateness;
}

// A live playlist keeps its name and replaces the former one; a playlist that keeps all its
// segments is a recording.
bool KeepsSegments(const Muxer::Settings& settings) {
  const auto size = settings.options.find("hls_list_size");
  return settings.options.contains("hls_playlist_type") ||
         (size != settings.options.end() && size->second == "0");
}

}  // namespace

OutputSession::OutputSession(const Settings& settings, const AVCodecParameters& video,
                             OutputCounters& counters, Owner owner)
    : settings_(settings),
      video_(video),
      counters_(counters),
      owner_(std::move(owner)),
      audioTracks_(settings.tracks.size()),
      interleaver_(counters, LatenessIn(settings.muxer)),
      silence_(
          LatenessIn(settings.muxer),
          [this](std::size_t channel) { return settings_.tracks[channel].audio->isLeftEmpty(); }),
      cutter_(settings.segments) {}

OutputSession::~OutputSession() {
  for (const TrackPacket& held : held_) {
    ++counters_.of(held.track).leftOut;
  }
  if (isOneFile_ && isNamed_ && !isOpen_) {
    if (muxer_) {
      muxer_->DiscardFile();
    }
    muxer_.reset();
    owner_.files->ForgetLatest();
  }
}

void OutputSession::Cancel() {
  const os::MutexLock guard(cancelLock_);
  cancelled_ = true;
  if (muxer_) {
    muxer_->Cancel();
  }
}

std::int64_t OutputSession::fileBytes() {
  const os::MutexLock guard(cancelLock_);
  return muxer_ ? muxer_->fileBytes() : 0;
}

bool OutputSession::IsWaitedFor(const Track& track) const {
  if (!track.audio) {
    return false;
  }
  const AudioTrack::State state = track.audio->state();
  return state == AudioTrack::State::kExpected ||
         (state == AudioTrack::State::kUnknown && settings_.waitForSources);
}

bool OutputSession::CanStart(const TrackPacket& packet) {
  if (packet.track != TrackPacket::kVideo) {
    return false;
  }
  if (!firstFrame_) {
    firstFrame_ = packet.packet->dts;
  }
  // Live: with the next frame the limit would be exceeded.
  const Time waited = settings_.sinceStart
                          ? settings_.sinceStart() + FrameDuration(settings_.frameRate)
                          : packet.packet->dts - *firstFrame_;
  return waited >= settings_.formatLimit ||
         std::none_of(settings_.tracks.begin(), settings_.tracks.end(),
                      [this](const Track& track) { return IsWaitedFor(track); });
}

void OutputSession::Hold(TrackPacket packet) {
  while (!firstFrame_ && !held_.empty() &&
         packet.packet->dts - held_.front().packet->dts > Interleaver::kMaxLead) {
    ++counters_.of(held_.front().track).leftOut;
    held_.pop_front();
  }
  held_.push_back(std::move(packet));
}

void OutputSession::WriteHeld() {
  for (TrackPacket& held : std::exchange(held_, {})) {
    Write(std::move(held));
  }
}

void OutputSession::SkipHeld() {
  const auto drop = [this](auto begin, auto end) {
    std::for_each(begin, end,
                  [this](const TrackPacket& held) { ++counters_.of(held.track).dropped; });
    return held_.erase(begin, end);
  };
  if (owner_.skipToNewestKeyframe()) {
    drop(held_.begin(), held_.end());
    return;
  }
  const auto key = std::find_if(held_.rbegin(), held_.rend(), [](const TrackPacket& held) {
    return held.track == TrackPacket::kVideo && (held.packet->flags & AV_PKT_FLAG_KEY) != 0;
  });
  if (key == held_.rend()) {
    return;
  }
  const Time from = key->packet->dts;
  const auto rest =
      std::stable_partition(held_.begin(), std::prev(key.base()), [from](const TrackPacket& held) {
        return held.track == TrackPacket::kVideo || held.packet->dts < from;
      });
  drop(held_.begin(), rest);
}

void OutputSession::Take(TrackPacket packet) {
  if (started()) {
    Write(std::move(packet));
    return;
  }
  const bool start = CanStart(packet);
  Hold(std::move(packet));
  if (start) {
    Start();
    if (owner_.skipToNewestKeyframe) {
      SkipHeld();
    }
    WriteHeld();
  }
}

void OutputSession::Start() {
  Muxer::Settings settings = settings_.muxer;
  settings.interleaves = false;
  auto muxer = std::make_unique<Muxer>(settings);
  file_.clear();
  isNamed_ = isOpen_ = false;
  isOneFile_ = owner_.files != nullptr && muxer->writesFile();
  if (isOneFile_) {
    std::unique_ptr<ffmpeg::FileOutput> next = owner_.files->Next();
    isNamed_ = true;
    file_ = next->path();
    muxer->SetFile(std::move(next));
  } else if (owner_.files != nullptr) {
    settings.url = KeepsSegments(settings) ? owner_.files->NextName() : owner_.files->Name();
    muxer->SetUrl(settings.url);
    file_ = settings.url;
  }
  std::optional<HlsLayout> hls;
  if (muxer->formatName() == "hls") {
    hls.emplace(settings, HlsLayout::Kind{settings_.waitForSources, KeepsSegments(settings)},
                settings_.keyFrameInterval);
  }
  Muxer* const opening = muxer.get();
  videoTrack_ = muxer->AddVideo(video_, settings_.frameRate);
  AddTracks(*muxer);
  if (hls) {
    for (std::size_t i = 0; i < audioTracks_.size(); ++i) {
      if (audioTracks_[i]) {
        const std::string& own = settings_.tracks[i].audio->format()->language;
        hls->AddAudio(settings_.tracks[i].name, own.empty() ? settings_.tracks[i].language : own);
      }
    }
    hls->Apply(*muxer);
  }
  {
    const os::MutexLock guard(cancelLock_);
    std::swap(muxer_, muxer);  // the former one may take long to end
    if (cancelled_) {
      opening->Cancel();
    }
  }
  opening->Start();
  for (const std::string& option : opening->unknownOptions()) {
    owner_.say("the option \"" + option + "\" is not known to " + opening->formatName());
  }
  if (hls) {
    hls->WritePlaylist(video_, settings_.frameRate);
  }
  ++targets_;
}

void OutputSession::NoteOpen() {
  isOpen_ = true;
  owner_.opened(*this, file_);
}

void OutputSession::FinishTarget() {
  muxer_->Finish();
  if (!isOpen_) {
    NoteOpen();
  }
}

void OutputSession::AddTracks(Muxer& muxer) {
  // All files of a recording have the same tracks, so that they can be joined.
  if (targets_ > 0) {
    for (const std::size_t i : channels_) {
      AddTrack(muxer, i, *settings_.tracks[i].audio->format());
    }
    return;
  }
  std::vector<std::size_t> order(settings_.tracks.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  const std::size_t most = MaxAudioTracks(muxer.formatName());
  if (most < order.size()) {
    std::stable_partition(order.begin(), order.end(),
                          [&](std::size_t i) { return settings_.tracks[i].preferred; });
  }
  for (const std::size_t i : order) {
    const Track& track = settings_.tracks[i];
    if (!track.audio) {
      continue;
    }
    std::shared_ptr<const AudioFormat> format = track.audio->format();
    if (!format && IsWaitedFor(track)) {
      format = track.audio->Fix(AacFormat(kUnknownRate, kUnknownChannels, track.language));
    }
    if (!format) {
      continue;
    }
    if (channels_.size() == most) {
      owner_.say(muxer.formatName() + " holds one track of audio: that of \"" +
                 settings_.tracks[channels_[0]].name + "\"");
      break;
    }
    try {
      AddTrack(muxer, i, *format);
      channels_.push_back(i);
    } catch (const ffmpeg::Error& error) {
      owner_.say("the audio of \"" + track.name + "\" is left out: " + error.what());
    }
  }
}

void OutputSession::AddTrack(Muxer& muxer, std::size_t channel, const AudioFormat& own) {
  const Track& track = settings_.tracks[channel];
  if (WantsAac(muxer.format(), own.parameters->codec_id) &&
      transcoders_.try_emplace(channel, own).second) {
    owner_.say("the audio of \"" + track.name + "\" (" +
               avcodec_get_name(own.parameters->codec_id) + ") is encoded to AAC for " +
               muxer.formatName());
  }
  const auto transcoder = transcoders_.find(channel);
  const AudioFormat& format = transcoder != transcoders_.end() ? transcoder->second.format() : own;
  audioTracks_[channel] = muxer.AddAudio(
      *format.parameters, track.name, format.language.empty() ? track.language : format.language);
  silence_.Add(channel, format);
}

void OutputSession::WriteAudio(TrackPacket item) {
  const auto channel = static_cast<std::size_t>(item.track);
  if (!audioTracks_.at(channel)) {
    ++counters_.of(item.track).leftOut;
    return;
  }
  const auto transcoder = transcoders_.find(channel);
  if (transcoder == transcoders_.end()) {
    interleaver_.PushAudio(channel, std::move(item.packet), item.offset);
    return;
  }
  // Counted as received are the packets to be written: those of the transcoder.
  --counters_.of(item.track).received;
  transcoder->second.Push(*item.packet, [&](ffmpeg::Packet packet) {
    ++counters_.of(item.track).received;
    interleaver_.PushAudio(channel, std::move(packet), item.offset);
  });
}

bool OutputSession::CutsBefore(const AVPacket& keyframe) {
  if (muxer_->formatName() == "flv" && interleaver_.InFile(keyframe.pts) >= kMaxFlvLength) {
    return true;
  }
  return isOneFile_ && cutter_.CutsBefore(keyframe.pts, FrameDuration(settings_.frameRate));
}

void OutputSession::Cut(const AVPacket& keyframe) {
  const Time length = interleaver_.Restart(keyframe.pts, mux_);
  silence_.FillToEnd(length, writeSilence_);
  FinishTarget();
  cutter_.Begin(keyframe.pts);
  silence_.Restart(length);
  Start();
}

void OutputSession::Write(TrackPacket item) {
  if (item.track == TrackPacket::kVideo) {
    if ((item.packet->flags & AV_PKT_FLAG_KEY) != 0 && CutsBefore(*item.packet)) {
      Cut(*item.packet);
    }
    interleaver_.PushVideo(std::move(item.packet), mux_);
    if (!isOpen_ && muxer_->hasDelivered() && length() >= owner_.openAfter) {
      NoteOpen();
    }
    return;
  }
  WriteAudio(std::move(item));
}

void OutputSession::WriteSilence(std::size_t channel, ffmpeg::Packet packet) {
  cutter_.Add(packet->size);
  if (muxer_->Write(*audioTracks_[channel], std::move(packet))) {
    ++counters_.of(static_cast<int>(channel)).silence;
  }
}

void OutputSession::Mux(int track, ffmpeg::Packet packet) {
  TrackCounters& counters = counters_.of(track);
  // Counted first: the packet is lost when the output fails.
  ++counters.leftOut;
  std::size_t number = videoTrack_;
  if (track == TrackPacket::kVideo) {
    silence_.FillTo(packet->dts, writeSilence_);
  } else {
    const auto channel = static_cast<std::size_t>(track);
    if (!silence_.EndBefore(channel, *packet, writeSilence_)) {
      return;
    }
    number = *audioTracks_[channel];
  }
  cutter_.Add(packet->size);
  if (muxer_->Write(number, std::move(packet))) {
    ++counters.written;
    --counters.leftOut;
  }
}

void OutputSession::Finish() {
  if (!started()) {
    if (!firstFrame_) {
      return;
    }
    Start();
    WriteHeld();
  }
  interleaver_.Finish(mux_);
  silence_.FillToEnd(interleaver_.end(), writeSilence_);
  FinishTarget();
}

}  // namespace host
