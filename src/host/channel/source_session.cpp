#include "host/channel/source_session.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <utility>

#include "host/ffmpeg/error.h"

namespace host {
namespace {

// Longer than any decoder holds audio back.
constexpr Time kUndecodable = kSecond;
// After this many frames that cannot be converted, the source is opened again; the window says why.
constexpr int kMaxLostInARow = 50;

// The composer's window pins hold a second of frames, and drop their queue at 78.
constexpr double kMaxFrameRate = 70;

Ratio WindowFrameRate(Ratio canvasRate) {
  Ratio rate = canvasRate;
  for (int each = 2; rate.value() > kMaxFrameRate; ++each) {
    rate = {canvasRate.num, canvasRate.den * each};
  }
  return rate;
}

FrameConverter::Settings ConverterSettings(const ChannelSettings& settings) {
  const config::Canvas& canvas = settings.canvas;
  return {settings.channel.window.width, settings.channel.window.height,
          WindowFrameRate(canvas.frameRate), canvas.pixelAspect(),
          settings.channel.options.deinterlace};
}

LevelMeter::Settings MeterSettings(const ChannelSettings& settings) {
  LevelMeter::Settings meter;
  meter.frameRate = settings.canvas.frameRate;
  return meter;
}

ItemPlacer::Settings PlacerSettings(const ChannelSettings& settings, const MediaInfo& info) {
  ItemPlacer::Settings placer;
  placer.kind = info.kind;
  placer.hasVideo = info.video.has_value();
  placer.hasAudio = info.audio.has_value();
  placer.frameRate = WindowFrameRate(settings.canvas.frameRate);
  placer.now = settings.now;
  placer.delay = settings.delay();
  return placer;
}

}  // namespace

SourceSession::SourceSession(const ChannelSettings& settings, const RenditionReader& reader,
                             FeedPin& videoPin, ChannelQueue& queue,
                             std::function<void(const std::string&)> audioChanged)
    : settings_(settings),
      reader_(reader),
      videoPin_(videoPin),
      placer_(PlacerSettings(settings, reader.info()), queue),
      audioSink_([this](AudioPacket packet) {
        const Time start = packet.start;
        const Time duration = packet.duration;
        return placer_.Add(start, duration, std::move(packet));
      }),
      converter_(ConverterSettings(settings)),
      frameMeter_(settings.channel.options.alarm),
      meter_(MeterSettings(settings)) {
  if (settings_.audioTrack) {
    audio_.emplace(settings_.audioTrack, settings_.channel.options.audio.language,
                   std::move(audioChanged));
    audio_->Announce(reader.audioParameters(),
                     reader.info().audio ? &*reader.info().audio : nullptr);
  }
}

bool SourceSession::Handle(MediaItem item) {
  if (auto* const decoded = std::get_if<DecodedFrame>(&item)) {
    Count(true, decoded->discontinuity);
    try {
      const DecodeBudget::Turn turn = TakeTurn();
      converter_.Push(std::move(*decoded));
    } catch (const ffmpeg::Error&) {
      LoseFrame();
    }
    return DrainConverter();
  }
  if (auto* const packet = std::get_if<AudioPacket>(&item)) {
    Count(false, packet->discontinuity);
    if (!NoteUndecoded(packet->start)) {
      return false;
    }
    return !audio_ || audio_->Take(std::move(*packet), *reader_.audioParameters(),
                                   *reader_.info().audio, audioSink_);
  }
  if (auto* const samples = std::get_if<AudioSamples>(&item)) {
    const AVFrame& frame = *samples->frame;
    if (!NoteDecoded(samples->start)) {
      return false;
    }
    meter_.Push(
        planes_.Convert(frame), frame.nb_samples, frame.sample_rate, samples->start,
        [this](const LevelMeter::Reading& reading) { open_ = AddReading(reading) && open_; });
    return (!audio_ || audio_->Take(*samples, audioSink_)) && open_;
  }
  return true;
}

bool SourceSession::NoteUndecoded(Time start) {
  undecodedSince_ = undecodedSince_.value_or(start);
  return start - *undecodedSince_ < kUndecodable || isUndecodable_ ||
         NoteAudio(start, AudioAbsence::kUndecodable, "it cannot be decoded");
}

bool SourceSession::NoteDecoded(Time start) {
  undecodedSince_.reset();
  return !isUndecodable_ || NoteAudio(start, AudioAbsence::kNone, {});
}

bool SourceSession::NoteAudio(Time start, AudioAbsence absence, const std::string& reason) {
  const std::optional<Time> placed = placer_.PlaceOfAudio(start);
  if (!placed.has_value()) {
    return true;  // reported with the next packet
  }
  isUndecodable_ = absence == AudioAbsence::kUndecodable;
  SourceEvent event;
  event.kind = SourceEvent::Kind::kAudio;
  event.audioAbsence = absence;
  event.audioReason = reason;
  return placer_.AddEvent(*placed, std::move(event));
}

bool SourceSession::Finish() {
  try {
    converter_.Finish();
  } catch (const ffmpeg::Error&) {
    ++lostFrames_;
  }
  if (!DrainConverter()) {
    return false;
  }
  meter_.Finish([this](const LevelMeter::Reading& reading) { AddReading(reading); });
  if (audio_ && !audio_->Finish(audioSink_)) {
    return false;
  }
  return placer_.Finish();
}

void SourceSession::Count(bool isFrame, bool isDiscontinuity) {
  if (settings_.logger != nullptr && isFrame) {
    settings_.logger->IncrementDecodedPictures();
  }
  if (isDiscontinuity && isFrame == reader_.info().video.has_value()) {
    ++jumps_;
  }
  if (settings_.logger != nullptr && isDiscontinuity) {
    settings_.logger->IncrementTsDiscontinuity();
  }
}

void SourceSession::LoseFrame() {
  ++lostFrames_;
  if (++lostInARow_ >= kMaxLostInARow) {
    throw;
  }
}

DecodeBudget::Turn SourceSession::TakeTurn() const {
  return settings_.decodeSeat ? settings_.decodeSeat->TakeTurn() : DecodeBudget::Turn();
}

bool SourceSession::DrainConverter() {
  while (const FrameConverter::FrameTimes* const next = converter_.Next()) {
    const FrameConverter::FrameTimes times = *next;
    // The frame is placed after the wait for a buffer, which is long in a slow wall and so counts
    // as lateness of the frame.
    const auto begun = std::chrono::steady_clock::now();
    const WindowSize size = settings_.SizeAt(placer_.PlaceOfFrame(times.start).value_or(Now()));
    converter_.Resize(size.width, size.height);
    const ComPtr<IMediaSample> sample =
        videoPin_.NewFrame(0, times.duration, true, static_cast<LONG>(converter_.bufferSize()));
    waited_ += std::chrono::steady_clock::now() - begun;
    BYTE* buffer = nullptr;
    if (!sample || FAILED(sample->GetPointer(&buffer))) {
      return false;
    }
    FrameCondition condition;
    try {
      const DecodeBudget::Turn turn = TakeTurn();
      converter_.Write({buffer, converter_.bufferSize()});
      condition = frameMeter_.Measure(buffer, size.width, size.height);
    } catch (const ffmpeg::Error&) {
      LoseFrame();
      continue;
    }
    lostInARow_ = 0;
    sample->SetSyncPoint(TRUE);
    if (!placer_.Add(times.start, times.duration, times.discontinuity,
                     ReadyFrame{sample, condition, size})) {
      return false;
    }
  }
  return true;
}

bool SourceSession::AddReading(const LevelMeter::Reading& reading) {
  return placer_.Add(reading.start, reading.duration, ReadyLevels{reading.levels, reading.loudest});
}

}  // namespace host
