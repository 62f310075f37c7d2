#include "host/channel/channel_ingest.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>

#include "host/channel/sound/audio_road.h"
#include "host/channel/sound/sample_planes.h"
#include "host/ffmpeg/error.h"
#include "host/graph/picture_type.h"

namespace host {
namespace {

using std::chrono::milliseconds;

// An attempt of that length has itself waited for the source.
constexpr milliseconds kWaited{1000};

}  // namespace

// One opening of the source: its items, from the first to the last.
class ChannelIngest::Pass {
 public:
  Pass(ChannelIngest& ingest, const MediaReader& reader)
      : ingest_(ingest),
        reader_(reader),
        hasPictures_(reader.info().video.has_value()),
        // Pictures are thinned by the frames of the canvas before they are placed.
        timeline_(LiveTimeline::For(reader.info().pace, ingest.settings_.span,
                                    FrameDuration(ingest.settings_.picture.canvasRate))),
        converter_(ConverterSettings(ingest.settings_, reader.info())),
        pictureMeter_(ingest.settings_.pictureMeter),
        meter_(ingest.settings_.meter),
        // One kind of items is in order by itself.
        merger_(hasPictures_ && reader.info().audio.has_value() ? ingest.settings_.mergeWindow
                                                                : 0) {
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

  // The wall's time for a time of the source that decides, and for another one.
  Time Place(Time start, bool jumped) {
    if (!ingest_.settings_.now) {
      return start;
    }
    const Time placed = timeline_.Place(start, jumped, ingest_.settings_.now());
    if (timeline_.leapt()) {
      // What lies there is skipped: it would hold up all that comes now.
      merger_.ForgetFrom(placed);
      ingest_.queue_.ForgetFrom(placed);
      ingest_.latest_ = std::min(ingest_.latest_, placed);
    }
    return placed;
  }
  std::optional<Time> Follow(Time start) {
    return ingest_.settings_.now ? timeline_.Follow(start, ingest_.settings_.now()) : start;
  }

  bool DrainConverter() {
    while (const PictureConverter::PictureTimes* const times = converter_.Next()) {
      const Time start = Place(times->start, times->discontinuity);
      const Time stop = start + times->duration;
      const ComPtr<IMediaSample> sample = ingest_.videoPin_.NewSample(start, stop, true);
      BYTE* buffer = nullptr;
      if (!sample || FAILED(sample->GetPointer(&buffer))) {
        return false;
      }
      converter_.Write({buffer, converter_.bufferSize()});
      sample->SetActualDataLength(static_cast<LONG>(converter_.bufferSize()));
      sample->SetSyncPoint(TRUE);
      const PictureCondition condition = pictureMeter_.Measure(
          buffer, ingest_.settings_.picture.width, ingest_.settings_.picture.height);
      if (!Add(start, ReadyPicture{sample, condition})) {
        return false;
      }
    }
    return true;
  }

  // The first picture places a live source: it may come in the middle of a group of pictures, and
  // sound that was waited for until then would make all that follows late.
  bool WaitsForPicture() const {
    return ingest_.settings_.now && hasPictures_ && reader_.info().pace != Pace::kStored &&
           !timeline_.started();
  }

  void AddReading(const LevelMeter::Reading& reading) {
    if (WaitsForPicture()) {
      return;
    }
    const std::optional<Time> start =
        hasPictures_ ? Follow(reading.start) : Place(reading.start, false);
    if (start.has_value()) {
      merger_.Push(*start, ReadyLevels{*start, reading.duration, reading.levels, reading.loudest});
    }
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
      ingest_.latest_ = std::max(ingest_.latest_, due);
      ingest_.delay_.Reset();
      if (!ingest_.queue_.Push({due, merger_.Take()})) {
        return false;
      }
    }
    ingest_.queue_.SetHorizon(std::min(merger_.Horizon(), ChannelQueue::kForever - 1));
    return true;
  }

  ChannelIngest& ingest_;
  const MediaReader& reader_;
  std::optional<AudioRoad> audio_;
  const AudioRoad::Sink audioSink_ = [this](AudioPacket packet) {
    if (WaitsForPicture()) {
      return true;
    }
    const std::optional<Time> start = Follow(packet.start);
    if (!start.has_value()) {
      return true;
    }
    packet.start = *start;
    return Add(*start, std::move(packet));
  };
  const bool hasPictures_;
  LiveTimeline timeline_;
  PictureConverter converter_;
  PictureMeter pictureMeter_;
  SamplePlanes planes_;
  LevelMeter meter_;
  ItemMerger<decltype(ChannelItem::content)> merger_;
};

ChannelIngest::ChannelIngest(Settings settings, FeedPin& videoPin, ChannelQueue& queue,
                             ChannelObserver* observer)
    : settings_(std::move(settings)),
      videoPin_(videoPin),
      queue_(queue),
      observer_(observer),
      delay_(static_cast<std::uint32_t>(std::hash<std::string>()(settings_.name))) {}

void ChannelIngest::Prepare() {
  latest_ = 0;
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
  while (!cancelled()) {
    const auto reader = std::make_shared<MediaReader>(settings_.reader);
    {
      const std::lock_guard guard(lock_);
      reader_ = reader;
      if (cancelled_) {
        break;
      }
    }
    const std::optional<milliseconds> delay = Attempt(*reader);
    {
      const std::lock_guard guard(lock_);
      reader_.reset();
    }
    if (!delay.has_value() || !WaitBeforeReopening(*delay)) {
      break;
    }
  }
  queue_.SetHorizon(ChannelQueue::kForever);
}

std::optional<milliseconds> ChannelIngest::Attempt(MediaReader& reader) {
  const auto after = [&](milliseconds delay) {
    return settings_.reopen ? std::optional(delay) : std::nullopt;
  };
  const auto failed = [&](const std::string& reason, std::optional<milliseconds> delay) {
    observer_->ChannelFailed(settings_.name, reason, delay);
    return Announce({SourceNews::Kind::kFailed, false, false, reason}) ? delay : std::nullopt;
  };
  const auto begun = std::chrono::steady_clock::now();
  const auto afterError = [&] {
    const bool hasWaited = std::chrono::steady_clock::now() - begun >= kWaited;
    return after(hasWaited ? delay_.AfterWaiting() : delay_.AfterFailure());
  };
  try {
    reader.Open();
    observer_->ChannelOpened(settings_.name, reader.info());
    if (!Announce({SourceNews::Kind::kOpened, reader.info().video.has_value(),
                   reader.info().audio.has_value(), reader.info().noVideoReason,
                   reader.info().serviceName}) ||
        !ReadToEnd(reader)) {
      return std::nullopt;
    }
    observer_->ChannelEnded(settings_.name);
    const bool endsForGood = reader.info().pace == Pace::kStored;
    const auto delay = endsForGood ? std::nullopt : after(delay_.AfterFailure());
    return Announce({SourceNews::Kind::kEnded, false, false, "ended"}) ? delay : std::nullopt;
  } catch (const MediaError& error) {
    if (cancelled()) {
      return std::nullopt;
    }
    return failed(error.reason(), afterError());
  } catch (const std::exception& error) {
    return failed(error.what(), afterError());
  }
}

bool ChannelIngest::Announce(SourceNews news) {
  if (settings_.now) {
    latest_ = std::max(latest_, settings_.now());
  }
  return queue_.Push({latest_, std::move(news)});
}

bool ChannelIngest::ReadToEnd(MediaReader& reader) {
  Pass pass(*this, reader);
  bool silent = false;
  for (;;) {
    try {
      MediaItem item = reader.Read();
      if (silent) {
        observer_->ChannelOpened(settings_.name, reader.info());
        silent = false;
      }
      if (std::holds_alternative<EndOfMedia>(item)) {
        return pass.Finish();
      }
      if (!pass.Handle(std::move(item))) {
        return false;
      }
    } catch (const MediaError& error) {
      if (!settings_.now) {
        // What was read before the failure is still shown, but not after a limit of a live wall.
        pass.Finish();
      }
      if (!settings_.reopen || !reader.canGoOn()) {
        throw;
      }
      silent = true;
      observer_->ChannelFailed(settings_.name, error.reason(), milliseconds(0));
      if (!Announce({SourceNews::Kind::kFailed, false, false, error.reason()})) {
        return false;
      }
    }
  }
}

}  // namespace host
