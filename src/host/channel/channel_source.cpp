#include "host/channel/channel_source.h"

#include <algorithm>
#include <limits>
#include <utility>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/feed/audio_encoder.h"
#include "host/feed/feed_pin.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

constexpr CLSID kChannelSourceClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x01}};
// The composer keeps up to 80 buffers of a channel; the others are on their way to it.
constexpr LONG kBuffersAtComposer = 80;
constexpr LONG kSpareBuffers = 8;
// A live source's frames may come in a burst that long.
constexpr Time kMaxAhead = kSecond;
// The composer and the sink copy packets at once.
constexpr LONG kAudioBuffers = 8;
// E-AC-3 with several substreams has the longest: 4096 bytes in each.
constexpr LONG kMaxAudioPacket = 32'768;
constexpr LONG kMaxLabel = 4096;  // bytes
// A label that was not taken, as when no buffer was free, is sent again after that time.
constexpr Time kLabelRetry = kSecond / 10;
// FFmpeg asks at least ten times a second whether its call is cancelled.
constexpr std::chrono::seconds kReaderLimit{2};

// How far the reader runs ahead of the wall.
constexpr Time kReadAhead = kSecond;

// A packet of silence; null where there is no encoder for the format.
ffmpeg::Packet SilenceOf(const AudioFormat& format) {
  try {
    return EncodeSilence(format);
  } catch (const ffmpeg::Error&) {
    return nullptr;
  }
}

LONG BuffersFor(const ChannelSource::Place& place) {
  const Time ahead = kReadAhead + (place.isLive ? kMaxAhead : ItemPlacer::kMergeWindow);
  return kBuffersAtComposer + kSpareBuffers +
         static_cast<LONG>(place.canvas.frameRate.value() * static_cast<double>(ahead) / kSecond);
}

}  // namespace

ComPtr<ChannelSource> ChannelSource::Create(ChannelSettings settings, ChannelObserver* observer) {
  const Place place{settings.canvas, settings.isLive(), settings.SizeAt(0)};
  return ComPtr<ChannelSource>(
      std::make_unique<ChannelSource>(place, std::move(settings), observer).release());
}

ComPtr<ChannelSource> ChannelSource::CreateSpare(const Place& place, ChannelObserver* observer) {
  return ComPtr<ChannelSource>(
      std::make_unique<ChannelSource>(place, std::nullopt, observer).release());
}

ChannelSource::ChannelSource(const Place& place, std::optional<ChannelSettings> settings,
                             ChannelObserver* observer)
    : CBaseFilter("channel source", nullptr, &lock_, kChannelSourceClass),
      wanted_(std::make_shared<WantedSize>(place.window)),
      video_(this, &lock_, u"Video",
             VideoType(place.window.width, place.window.height, place.canvas.frameRate,
                       place.canvas.aspect),
             {BuffersFor(place), FrameBytes(place.window.width, place.window.height)}),
      audio_(this, &lock_, u"Audio", AudioType({}), {kAudioBuffers, kMaxAudioPacket}),
      text_(this, &lock_, u"Text", LabelType(), {4, kMaxLabel}),
      audioAlarm_(this, &lock_, u"Audio Alarm", AudioAlarmType(),
                  {4, static_cast<LONG>(kAudioAlarmSize)}),
      videoAlarm_(this, &lock_, u"Video Alarm", VideoAlarmType(),
                  {4, static_cast<LONG>(kVideoAlarmSize)}),
      observer_(observer) {
  video_.UseFrames(FrameAllocator::Create());
  const ChannelControls controls =
      settings ? ChannelControls(settings->channel.options) : ChannelControls();
  Assign(std::move(settings), controls);
}

// Everything that the threads of the former channel use stays until they have ended.
void ChannelSource::Assign(std::optional<ChannelSettings> settings,
                           const ChannelControls& controls) {
  EndRun();
  queue_ = std::make_shared<ChannelQueue>(kReadAhead);
  if (!settings) {
    settings_.reset();
    return;
  }
  settings_ = std::make_shared<const ChannelSettings>(std::move(*settings));
  if (settings_->isLive() && !settings_->driven) {
    queue_->FollowClock(settings_->now);
  }
  presenter_.emplace(*settings_, WindowFeed::Pins{video_, audioAlarm_, videoAlarm_}, observer_);
  {
    const os::MutexLock guard(labelLock_);
    label_ = settings_->label;
    controls_ = controls;
  }
  if (!IsStopped()) {
    StartRun();
  }
}

void ChannelSource::SetControls(const ChannelControls& controls) {
  const os::MutexLock guard(labelLock_);
  controls_ = controls;
}

void ChannelSource::ApplyControls() {
  std::optional<ChannelControls> controls;
  {
    const os::MutexLock guard(labelLock_);
    controls.swap(controls_);
  }
  if (controls) {
    presenter_->SetControls(*controls);
    mute_ = controls->mute;
    if (settings_->audioTrack) {
      settings_->audioTrack->LeaveEmpty(mute_ == config::Mute::kNothing);
    }
    if (ingest_) {
      ingest_->SetDecode(controls->decode);
    }
  }
}

void ChannelSource::EndRun() {
  CancelReader();
  if (queue_) {
    queue_->Close();
  }
  EndStreaming();
  if (presenter_) {
    handover_ = presenter_->HandOver();
    presenter_.reset();
  }
  if (reader_ != nullptr) {
    retired_.push_back({settings_, queue_, std::move(ingest_), std::move(reader_),
                        std::chrono::steady_clock::now() + kReaderLimit});
  }
  ingest_.reset();
}

int ChannelSource::EndRetired() {
  int detached = 0;
  std::erase_if(retired_, [&](Retired& one) {
    const bool isOver = std::chrono::steady_clock::now() >= one.deadline;
    if (!isOver && !one.reader->Wait(0)) {
      return false;
    }
    const bool ended = one.ingest->EndBy(one.deadline);
    if (ended) {
      one.reader->Wait(os::kInfinite);
    }
    detached += ended ? 0 : 1;
    return true;
  });
  return detached;
}

void ChannelSource::ReportFullBuffersTo(qorp::log::ILogPerf* logger, const std::string& name) {
  const std::string prefix = name + " ";
  video_.ReportTo(logger, prefix + "video");
  audio_.ReportTo(logger, prefix + "audio");
  text_.ReportTo(logger, prefix + "label");
  audioAlarm_.ReportTo(logger, prefix + "levels");
  videoAlarm_.ReportTo(logger, prefix + "video alarm");
}

ChannelSource::~ChannelSource() {
  CancelReader();
  queue_->Close();
  EndStreaming();
  EndReader(std::chrono::steady_clock::now() + kReaderLimit);
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
  EndReader(std::chrono::steady_clock::now() + kReaderLimit);
  if (settings_ != nullptr) {
    StartRun();
  }
  return hr;
}

void ChannelSource::StartRun() {
  queue_->Open();
  audioFormat_.reset();
  nextLabel_ = std::numeric_limits<Time>::min();
  {
    const os::MutexLock guard(labelLock_);
    labelChanged_ = true;
  }
  presenter_->Begin(Now().value_or(0), std::exchange(handover_, {}));
  if (settings_->driven) {
    return;
  }
  ingest_ = std::make_shared<ChannelIngest>(settings_, wanted_, video_, *queue_, observer_);
  reader_ = std::make_unique<os::Thread>([ingest = ingest_] { ingest->Run(); }, "reader",
                                         os::Thread::Priority::kLow);
  streaming_ = std::make_unique<os::Thread>([this] { Stream(); }, "streaming");
}

HRESULT ChannelSource::Stop() {
  // Ends every wait of the two threads: for the source, for room, for a buffer.
  CancelReader();
  queue_->Close();
  const HRESULT hr = CBaseFilter::Stop();
  EndStreaming();
  if (presenter_) {
    presenter_->End();
  }
  handover_ = {};
  return hr;
}

void ChannelSource::CancelReader() {
  if (ingest_ != nullptr) {
    ingest_->Cancel();
  }
}

void ChannelSource::EndStreaming() {
  if (streaming_ != nullptr) {
    streaming_->Wait(os::kInfinite);
    streaming_.reset();
  }
}

bool ChannelSource::EndReader(std::chrono::steady_clock::time_point deadline) {
  for (Retired& one : retired_) {
    one.deadline = std::min(one.deadline, deadline);
    if (one.ingest->EndBy(one.deadline)) {
      one.reader->Wait(os::kInfinite);
    }
  }
  retired_.clear();
  if (reader_ == nullptr) {
    return true;
  }
  const bool ended = ingest_->EndBy(deadline);
  if (ended) {
    reader_->Wait(os::kInfinite);
  }
  reader_.reset();
  ingest_.reset();
  return ended;
}

void ChannelSource::SetLabel(const std::string& text) {
  const os::MutexLock guard(labelLock_);
  labelChanged_ = labelChanged_ || text != label_;
  label_ = text;
}

std::optional<Time> ChannelSource::Now() const {
  return settings_->isLive() ? std::optional(settings_->now()) : std::nullopt;
}

void ChannelSource::Stream() {
  while (!queue_->closed()) {
    const Time tick = presenter_->nextTick();
    if (std::optional<ChannelItem> item = queue_->Take(tick)) {
      Deliver(*item);
    } else if (!queue_->closed()) {
      // A streaming thread that was kept from running has nothing to make up for.
      DeliverTick(std::max(tick, Now().value_or(tick)));
    }
  }
}

void ChannelSource::DeliverUpTo(Time now) {
  for (;;) {
    const Time tick = presenter_->nextTick();
    if (std::optional<ChannelItem> item = queue_->Take(std::min(tick, now))) {
      Deliver(*item);
    } else if (tick <= now) {
      DeliverTick(now);
    } else {
      return;
    }
  }
}

void ChannelSource::DeliverTick(Time tick) {
  ApplyControls();
  DeliverLabel(tick);
  presenter_->Tick(tick);
}

void ChannelSource::Deliver(ChannelItem& item) {
  const auto* const opened = std::get_if<SourceEvent>(&item.content);
  const bool labelByService = settings_->channel.label.source == config::Label::Source::kService;
  if (labelByService && opened != nullptr && !opened->serviceName.empty()) {
    SetLabel(opened->serviceName);
  }
  ApplyControls();
  DeliverLabel(item.due);
  if (const auto* const picture = std::get_if<ReadyFrame>(&item.content)) {
    presenter_->Show(*picture, item.start, item.duration);
  } else if (const auto* const levels = std::get_if<ReadyLevels>(&item.content)) {
    presenter_->Show(*levels, item.start, item.duration);
  } else if (const auto* const event = std::get_if<SourceEvent>(&item.content)) {
    presenter_->OnSourceEvent(*event, item.due);
  } else if (const auto* const packet = std::get_if<AudioPacket>(&item.content)) {
    DeliverAudio(*packet, item.start, item.duration);
  }
}

// The pins are connected before the form of the audio is known: it comes with the first packet.
void ChannelSource::DeliverAudio(const AudioPacket& packet, Time start, Time duration) {
  if (mute_ == config::Mute::kNothing) {
    return;
  }
  std::optional<CMediaType> type;
  if (packet.format != audioFormat_) {
    type.emplace(AudioType(Describe(*packet.format)));
    silence_.reset();
  }
  const AVPacket* bytes = packet.packet.get();
  if (mute_ == config::Mute::kSilence) {
    silence_ = silence_ ? std::move(silence_) : SilenceOf(*packet.format);
    if (!silence_) {
      return;  // the outputs put silence into the gap
    }
    bytes = silence_.get();
  }
  const bool sent = audio_.Send({bytes->data, static_cast<std::size_t>(bytes->size)}, start,
                                start + duration, type ? &*type : nullptr);
  if (sent) {
    audioFormat_ = packet.format;
  }
}

void ChannelSource::DeliverLabel(Time time) {
  std::string text;
  {
    const os::MutexLock guard(labelLock_);
    if (!labelChanged_ || time < nextLabel_) {
      return;
    }
    labelChanged_ = false;
    text = label_;
  }
  text.resize(std::min<std::size_t>(text.size(), kMaxLabel));
  if (text_.Send({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, time,
                 time + 1)) {
    return;
  }
  nextLabel_ = time + kLabelRetry;
  const os::MutexLock guard(labelLock_);
  labelChanged_ = true;
}

}  // namespace host
