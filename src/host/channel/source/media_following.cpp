// The part of MediaReader that follows the streams of a source that are not its tracks.
#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/describe_media.h"
#include "host/channel/source/media_reader.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

// What a packet of audio lasts. The demuxer gives the first ones before it knows their rate,
// without a duration and all but the first without a timestamp. 0 for video.
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

// A packet of a stream that is not one of the tracks.
void MediaReader::FollowOther(const AVPacket& packet) {
  AVStream& stream = *input_->streams[packet.stream_index];
  const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
  if ((!isVideo && stream.codecpar->codec_type != AVMEDIA_TYPE_AUDIO) || IsCoverArt(stream)) {
    return;
  }
  if (std::optional<Track>& track = isVideo ? video_ : audio_) {
    FollowReplacement(*track, packet);
  } else if ((isVideo ? settings_.wantVideo : settings_.options.audio.enabled) &&
             info_.kind != SourceKind::kFile) {
    AwaitBeginning(stream, packet);
  }
}

// 0 where it is not known.
Time MediaReader::DurationOf(const AVPacket& packet) const {
  AVStream& stream = *input_->streams[packet.stream_index];
  const Time duration = ffmpeg::ToDuration(packet.duration, stream.time_base);
  return duration > 0 ? duration : AudioDuration(stream, packet.size);
}

// The container lists the programs of which the streams are, and the track's is in none any more.
bool MediaReader::IsWithdrawn(const Track& track) const {
  return input_->nb_programs > 0 &&
         av_find_program_from_stream(input_.get(), nullptr, track.streamIndex) == nullptr;
}

// A stream that the source begins after the opening may take the place of the one that is read, and
// that one may return.
void MediaReader::FollowReplacement(Track& track, const AVPacket& packet) {
  constexpr Time kDefaultPacketDuration = kSecond / 50;
  const int index = packet.stream_index;
  if (static_cast<unsigned>(index) < knownStreams_ && !track.failover.IsChosen(index)) {
    return;
  }
  const AVStream& stream = *input_->streams[index];
  StreamFailover::Candidacy candidacy;
  candidacy.duration = DurationOf(packet);
  if (candidacy.duration == 0) {
    candidacy.duration = track.frameDuration > 0 ? track.frameDuration : kDefaultPacketDuration;
  }
  candidacy.isInWantedLanguage =
      !track.language.empty() && DescribeAudio(stream).language == track.language;
  candidacy.replacesWithdrawn =
      IsWithdrawn(track) && av_find_program_from_stream(input_.get(), nullptr, index) != nullptr;
  if (track.failover.OnOther(packet, candidacy)) {
    std::vector<ffmpeg::Packet> kept = track.failover.TakeKept(index);
    Replace(track, index);
    for (ffmpeg::Packet& each : kept) {
      HandlePacket(std::move(each));
    }
  }
}

// Of a kind that was not there when the source was opened, or gave nothing then. Once a decoder has
// made something of it, the source is to be opened again: what cannot be decoded interrupts
// nothing.
void MediaReader::AwaitBeginning(AVStream& stream, const AVPacket& packet) {
  bool begins = false;
  try {
    StreamDecoder& decoder = awaited_.try_emplace(stream.index, stream, 1).first->second;
    decoder.Decode(packet, [&](const ffmpeg::Frame&) { begins = true; });
  } catch (const ffmpeg::Error&) {
    stream.discard = AVDISCARD_ALL;
  }
  if (begins) {
    const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    throw MediaError(MediaError::Kind::kFailed,
                     std::string(isVideo ? "its video" : "its audio") + " begins", maskedSource_);
  }
}

void MediaReader::Replace(Track& track, int streamIndex) {
  AVStream& stream = *input_->streams[streamIndex];
  const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
  if (isVideo) {
    track.decoder->Drain([this](ffmpeg::Frame frame) { GivePicture(std::move(frame)); });
  }
  try {
    track.decoder.emplace(stream, settings_.options.decoderThreads);
  } catch (const ffmpeg::Error& error) {
    throw MediaError(MediaError::Kind::kFailed, error.what(), maskedSource_);
  }
  track.streamIndex = streamIndex;
  clock_->ReplaceStream(track.clockStream, WrapPeriod(stream));
  if (isVideo) {
    info_.video = DescribeVideo(*input_, stream);
  } else {
    info_.audio = DescribeAudio(stream);
    audioParameters_ = ffmpeg::CopyParameters(*stream.codecpar);
  }
  ++replacements_;
}

}  // namespace host
