#include "host/channel/channel_source.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/graph/picture_type.h"

namespace host {
namespace {

constexpr CLSID kChannelSourceClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x01}};
// The composer keeps up to 80 buffers of a channel; the others are on their way to it.
constexpr LONG kBuffersAtComposer = 80;
constexpr LONG kSpareBuffers = 8;
// A channel that gave nothing for so long has run the composer's queue dry.
constexpr Time kFixAfterGap = 8 * kSecond / 10;
// The composer and the sink copy packets at once.
constexpr LONG kAudioBuffers = 8;
// E-AC-3 with several substreams has the longest: 4096 bytes in each.
constexpr LONG kLongestAudioPacket = 32'768;
constexpr LONG kLongestLabel = 4096;  // bytes

LONG BuffersFor(Ratio canvasRate, Time span) {
  return kBuffersAtComposer + kSpareBuffers +
         static_cast<LONG>(canvasRate.value() * static_cast<double>(span) / kSecond);
}

}  // namespace

ComPtr<ChannelSource> ChannelSource::Create(Settings settings, ChannelObserver* observer) {
  return ComPtr<ChannelSource>(
      std::make_unique<ChannelSource>(std::move(settings), observer).release());
}

ChannelSource::ChannelSource(Settings settings, ChannelObserver* observer)
    : CBaseFilter("channel source", nullptr, &lock_, kChannelSourceClass),
      settings_(std::move(settings)),
      video_(this, &lock_, u"Video",
             PictureType(settings_.ingest.picture.width, settings_.ingest.picture.height,
                         settings_.canvasRate, settings_.canvasAspect),
             {BuffersFor(settings_.canvasRate, settings_.ingest.span),
              PictureSize(settings_.ingest.picture.width, settings_.ingest.picture.height)}),
      audio_(this, &lock_, u"Audio", AudioType({}), {kAudioBuffers, kLongestAudioPacket}),
      text_(this, &lock_, u"Text", LabelType(), {4, kLongestLabel}),
      audioAlarm_(this, &lock_, u"Audio Alarm", AudioAlarmType(),
                  {4, static_cast<LONG>(kAudioAlarmSize)}),
      videoAlarm_(this, &lock_, u"Video Alarm", VideoAlarmType(),
                  {4, static_cast<LONG>(kVideoAlarmSize)}),
      queue_(settings_.ingest.span),
      ingest_(settings_.ingest, video_, queue_, observer),
      label_(settings_.label) {}

void ChannelSource::ReportFullBuffersTo(qorp::log::ILogPerf* logger) {
  const std::string prefix = name() + " ";
  video_.ReportTo(logger, prefix + "video");
  audio_.ReportTo(logger, prefix + "audio");
  text_.ReportTo(logger, prefix + "label");
  audioAlarm_.ReportTo(logger, prefix + "levels");
  videoAlarm_.ReportTo(logger, prefix + "video alarm");
}

ChannelSource::~ChannelSource() {
  EndThreads();
}

CBasePin* ChannelSource::GetPin(int position) {
  FeedPin* const pins[] = {&video_, &audio_, &text_, &audioAlarm_, &videoAlarm_};
  return position >= 0 && position < 5 ? pins[position] : nullptr;
}

HRESULT ChannelSource::Pause() {
  const bool starts = IsStopped();
  const HRESULT hr = CBaseFilter::Pause();
  if (FAILED(hr) || !starts) {
    return hr;
  }
  queue_.Open();
  lastPicture_.reset();
  soundFormat_.reset();
  {
    const std::lock_guard guard(labelLock_);
    labelChanged_ = true;
  }
  ingest_.Prepare();
  reader_ = std::make_unique<os::Thread>([this] { ingest_.Run(); }, "reader");
  streaming_ = std::make_unique<os::Thread>([this] { Stream(); }, "streaming");
  return hr;
}

HRESULT ChannelSource::Stop() {
  // Ends every wait of the two threads: for the source, for room, for a buffer.
  ingest_.Cancel();
  queue_.Close();
  const HRESULT hr = CBaseFilter::Stop();
  EndThreads();
  return hr;
}

void ChannelSource::EndThreads() {
  for (std::unique_ptr<os::Thread>* thread : {&reader_, &streaming_}) {
    if (*thread != nullptr) {
      (*thread)->Wait(os::kInfinite);
      thread->reset();
    }
  }
}

void ChannelSource::SetLabel(const std::string& text) {
  const std::lock_guard guard(labelLock_);
  labelChanged_ = labelChanged_ || text != label_;
  label_ = text;
}

void ChannelSource::Stream() {
  while (std::optional<ChannelItem> item = queue_.Take()) {
    Deliver(*item);
  }
}

void ChannelSource::Deliver(ChannelItem& item) {
  DeliverLabel(item.time);
  if (const auto* const picture = std::get_if<ReadyPicture>(&item.content)) {
    DeliverPicture(*picture);
  } else if (const auto* const levels = std::get_if<ReadyLevels>(&item.content)) {
    DeliverLevels(levels->start, levels->duration, levels->levels);
  } else if (const auto* const packet = std::get_if<AudioPacket>(&item.content)) {
    DeliverSound(*packet);
  }
}

// The pins are connected before the form of the sound is known: it comes with the first packet.
void ChannelSource::DeliverSound(const AudioPacket& packet) {
  std::optional<CMediaType> type;
  if (packet.format != soundFormat_) {
    type.emplace(AudioType(Describe(*packet.format)));
  }
  const bool sent =
      audio_.Send({packet.packet->data, static_cast<std::size_t>(packet.packet->size)},
                  packet.start, packet.start + packet.duration, type ? &*type : nullptr);
  if (sent) {
    soundFormat_ = packet.format;
  }
}

void ChannelSource::DeliverPicture(const ReadyPicture& picture) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  picture.sample->GetTime(&start, &stop);
  FixClock(picture.sample.Get(), start);
  video_.Deliver(picture.sample.Get());
  videoAlarm_.Send(ToWire(VideoAlarmRecord{}), start, stop);
  if (!ingest_.hasAudio()) {
    // The alarms of a channel show only where it has a meter.
    DeliverLevels(start, stop - start, AudioLevels{});
  }
  const bool isFirst = !lastPicture_.has_value();
  lastPicture_ = start;
  if (isFirst && settings_.pictureSent) {
    settings_.pictureSent();
  }
}

// The composer fixes a channel's time to its own with every picture that finds fewer than two
// others waiting, whatever moment that picture belongs to. Copies of it that carry the composer's
// present time go first, so that the fix is exact and the channel's times are the wall's.
void ChannelSource::FixClock(IMediaSample* picture, Time start) {
  int copies = 0;
  if (!lastPicture_.has_value()) {
    copies = 2;
  } else if (start - *lastPicture_ >= kFixAfterGap) {
    copies = 1;  // the last picture from before the gap still waits
    if (settings_.ingest.logger != nullptr) {
      settings_.ingest.logger->IncrementResync();
    }
  }
  const Time present = settings_.latestFrame ? settings_.latestFrame() : 0;
  BYTE* from = nullptr;
  picture->GetPointer(&from);
  for (; copies > 0; --copies) {
    const ComPtr<IMediaSample> copy = video_.NewSample(present, present + 1, false);
    BYTE* to = nullptr;
    if (!copy || FAILED(copy->GetPointer(&to))) {
      return;
    }
    std::memcpy(to, from, static_cast<std::size_t>(picture->GetActualDataLength()));
    copy->SetActualDataLength(picture->GetActualDataLength());
    video_.Deliver(copy.Get());
  }
}

void ChannelSource::DeliverLevels(Time start, Time duration, const AudioLevels& levels) {
  AudioAlarmRecord record;
  record.metersEnabled = settings_.meter;
  record.levels = levels;
  audioAlarm_.Send(ToWire(record), start, start + duration);
}

void ChannelSource::DeliverLabel(Time time) {
  std::string text;
  {
    const std::lock_guard guard(labelLock_);
    if (!labelChanged_) {
      return;
    }
    labelChanged_ = false;
    text = label_;
  }
  text.resize(std::min<std::size_t>(text.size(), kLongestLabel));
  text_.Send({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, time, time + 1);
}

}  // namespace host
