#include "host/channel/channel_ingest.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>

#include "host/channel/audio_road.h"
#include "host/channel/sample_planes.h"
#include "host/ffmpeg/error.h"
#include "host/graph/picture_type.h"

namespace host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstDelay{250};
constexpr milliseconds kLongestDelay{5000};

}  // namespace

// One opening of the source: its items, from the first to the last.
class ChannelIngest::Pass {
 public:
  Pass(ChannelIngest& ingest, const MediaReader& reader, Time shift)
      : ingest_(ingest),
        reader_(reader),
        shift_(shift),
        converter_(ConverterSettings(ingest.settings_, reader.info())),
        meter_(ingest.settings_.meter),
        merger_(ingest.settings_.mergeWindow) {
    if (ingest.settings_.audioTrack) {
      audio_.emplace(ingest.settings_.audioTrack, ingest.settings_.reader.audioLanguage,
                     [this](const std::string& what) {
                       ingest_.observer_->ChannelSoundChanged(ingest_.settings_.name, what);
                     });
      audio_->Announce(reader.audioParameters(),
                       reader.info().audio ? &*reader.info().audio : nullptr);
    }
  }

  // False once the queue is closed.
  bool Handle(MediaItem item) {
    if (auto* const picture = std::get_if<VideoPicture>(&item)) {
      Count(true, picture->discontinuity);
      converter_.Push(std::move(*picture));
      return DrainConverter();
    }
    if (auto* const packet = std::get_if<AudioPacket>(&item)) {
      Count(false, packet->discontinuity);
      return !audio_ || audio_->Take(std::move(*packet), *reader_.audioParameters(),
                                     *reader_.info().audio, audioSink_);
    }
    if (auto* const samples = std::get_if<AudioSamples>(&item)) {
      const AVFrame& frame = *samples->frame;
      meter_.Push(planes_.Convert(frame), frame.nb_samples, frame.sample_rate, samples->start,
                  [&](const LevelMeter::Reading& reading) { AddReading(reading); });
      return (!audio_ || audio_->Take(*samples, audioSink_)) && Flush();
    }
    return true;
  }

  bool Finish() {
    converter_.Finish();
    if (!DrainConverter()) {
      return false;
    }
    meter_.Finish([&](const LevelMeter::Reading& reading) { AddReading(reading); });
    if (audio_ && !audio_->Finish(audioSink_)) {
      return false;
    }
    merger_.Finish();
    return Flush();
  }

 private:
  static PictureConverter::Settings ConverterSettings(const Settings& settings,
                                                      const MediaInfo& info) {
    PictureConverter::Settings picture = settings.picture;
    picture.rotation = info.video.has_value() ? info.video->rotation : 0;
    return picture;
  }

  void Count(bool isPicture, bool isDiscontinuity) {
    qorp::log::ILogPerf* const logger = ingest_.settings_.logger;
    if (logger != nullptr && isPicture) {
      logger->IncrementDecodedPictures();
    }
    if (logger != nullptr && isDiscontinuity) {
      logger->IncrementTsDiscontinuity();
    }
  }

  bool DrainConverter() {
    while (const PictureConverter::PictureTimes* const times = converter_.Next()) {
      const Time start = times->start + shift_;
      const Time stop = start + times->duration;
      const ComPtr<IMediaSample> sample = ingest_.videoPin_.NewSample(start, stop, true);
      BYTE* buffer = nullptr;
      if (!sample || FAILED(sample->GetPointer(&buffer))) {
        return false;
      }
      converter_.Write({buffer, converter_.bufferSize()});
      sample->SetActualDataLength(static_cast<LONG>(converter_.bufferSize()));
      sample->SetSyncPoint(TRUE);
      if (!Add(start, ReadyPicture{sample})) {
        return false;
      }
    }
    return true;
  }

  void AddReading(const LevelMeter::Reading& reading) {
    merger_.Push(reading.start + shift_,
                 ReadyLevels{reading.start + shift_, reading.duration, reading.levels});
  }

  template <typename Content>
  bool Add(Time time, Content content) {
    merger_.Push(time, std::move(content));
    return Flush();
  }

  // Hands on what is in its place.
  bool Flush() {
    while (const Time* const time = merger_.Next()) {
      const Time due = *time;
      if (!ingest_.queue_.Push({due, merger_.Take()})) {
        return false;
      }
    }
    ingest_.queue_.SetHorizon(std::min(merger_.Horizon(), ChannelQueue::kForever - 1));
    return true;
  }

  ChannelIngest& ingest_;
  const MediaReader& reader_;
  const Time shift_;
  std::optional<AudioRoad> audio_;
  const AudioRoad::Sink audioSink_ = [this](AudioPacket packet) {
    packet.start += shift_;
    const Time start = packet.start;
    return Add(start, std::move(packet));
  };
  PictureConverter converter_;
  SamplePlanes planes_;
  LevelMeter meter_;
  ItemMerger<std::variant<ReadyPicture, AudioPacket, ReadyLevels>> merger_;
};

ChannelIngest::ChannelIngest(Settings settings, FeedPin& videoPin, ChannelQueue& queue,
                             ChannelObserver* observer)
    : settings_(std::move(settings)), videoPin_(videoPin), queue_(queue), observer_(observer) {}

void ChannelIngest::Prepare() {
  const std::lock_guard guard(lock_);
  cancelled_ = false;
}

void ChannelIngest::Cancel() {
  {
    const std::lock_guard guard(lock_);
    cancelled_ = true;
    if (reader_ != nullptr) {
      reader_->Cancel();
    }
  }
  cancelling_.notify_all();
}

bool ChannelIngest::cancelled() const {
  const std::lock_guard guard(lock_);
  return cancelled_;
}

bool ChannelIngest::WaitBeforeReopening(milliseconds delay) {
  std::unique_lock guard(lock_);
  return !cancelling_.wait_for(guard, delay, [&] { return cancelled_; });
}

void ChannelIngest::Run() {
  milliseconds delay = kFirstDelay;
  while (!cancelled()) {
    const auto reader = std::make_shared<MediaReader>(settings_.reader);
    {
      const std::lock_guard guard(lock_);
      reader_ = reader;
      if (cancelled_) {
        break;
      }
    }
    const auto retryIn = settings_.reopen ? std::optional(delay) : std::nullopt;
    try {
      reader->Open();
      observer_->ChannelOpened(settings_.name, reader->info());
      delay = kFirstDelay;
      if (ReadToEnd(*reader)) {
        observer_->ChannelEnded(settings_.name);
      }
    } catch (const MediaError& error) {
      if (!cancelled()) {
        observer_->ChannelFailed(settings_.name, error.reason(), retryIn);
      }
    } catch (const std::exception& error) {
      observer_->ChannelFailed(settings_.name, error.what(), retryIn);
    }
    {
      const std::lock_guard guard(lock_);
      reader_.reset();
    }
    if (!settings_.reopen || !WaitBeforeReopening(delay)) {
      break;
    }
    delay = std::min(delay * 2, kLongestDelay);
  }
  queue_.SetHorizon(ChannelQueue::kForever);
}

bool ChannelIngest::ReadToEnd(MediaReader& reader) {
  hasAudio_ = reader.info().audio.has_value();
  Pass pass(*this, reader, settings_.startTime ? settings_.startTime() : 0);
  try {
    MediaItem item = reader.Read();
    while (!std::holds_alternative<EndOfMedia>(item)) {
      if (!pass.Handle(std::move(item))) {
        return false;
      }
      item = reader.Read();
    }
  } catch (const MediaError&) {
    // What was read before the failure is still shown.
    pass.Finish();
    throw;
  }
  return pass.Finish();
}

}  // namespace host
