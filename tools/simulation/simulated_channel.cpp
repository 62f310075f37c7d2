#include "tools/simulation/simulated_channel.h"

#include <algorithm>
#include <cstring>
#include <limits>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/feed/audio_format.h"
#include "host/feed/feed_pin.h"

namespace simulation {

namespace {

using host::kMillisecond;
using host::kSecond;

constexpr Time kNever = std::numeric_limits<Time>::max();
constexpr Time kReadLimit = 5 * kSecond;
constexpr int kIdRow = 2;
constexpr int kIdColumn = 20;
constexpr std::uint32_t kMagic = 0x51A7C0DE;
constexpr int kMeterColumn = 3;
constexpr int kMeterRow = WindowLayout::kHeight - 1 - 2 - 10;
constexpr std::uint8_t kLitLuma = 122;
constexpr int kLevelRate = 1000;  // hertz

std::shared_ptr<const host::AudioFormat> Format() {
  static const std::shared_ptr<const host::AudioFormat> format = host::AacFormat(48'000, 2, "");
  return format;
}

}  // namespace

void WindowLayout::Write(std::uint8_t* luma, int stride, ContentId id) {
  const std::uint32_t words[] = {kMagic, id.epoch, id.number};
  std::memcpy(luma + kIdRow * stride + kIdColumn, words, sizeof(words));
}

std::optional<ContentId> WindowLayout::Read(const std::uint8_t* luma, int stride) {
  std::uint32_t words[3];
  std::memcpy(words, luma + kIdRow * stride + kIdColumn, sizeof(words));
  return words[0] == kMagic ? std::optional(ContentId{words[1], words[2]}) : std::nullopt;
}

bool WindowLayout::MeterIsLit(const std::uint8_t* luma, int stride) {
  return luma[kMeterRow * stride + kMeterColumn] > kLitLuma;
}

SimulatedChannel::Session::Session(const SimulatedChannel& channel)
    : videoStream(clock.AddStream(channel.model_->wrapPeriod)),
      audioStream(clock.AddStream(channel.model_->wrapPeriod)),
      limiter(channel.canvas_.frameRate),
      meter({channel.canvas_.frameRate}),
      placer({channel.model_->kind, true, channel.model_->audio, channel.canvas_.frameRate,
              channel.services_.now, channel.canvas_.delay},
             channel.channel_->queue()) {}

SimulatedChannel::SimulatedChannel(std::size_t index, const SourceModel* model, std::uint64_t seed,
                                   Time begin, const host::config::Canvas& canvas,
                                   const Services& services)
    : model_(model), canvas_(canvas), services_(services), format_(Format()), opensAt_(begin) {
  if (model_ != nullptr) {
    packets_.emplace(*model_, seed, begin);
  }
  host::ChannelSettings settings;
  settings.channel.name = "channel " + std::to_string(index);
  settings.channel.window = {0, 0, WindowLayout::kWidth, WindowLayout::kHeight};
  settings.canvas = canvas_;
  // A caption would cover what is read in the window.
  host::config::AlarmOptions& alarm = settings.channel.options.alarm;
  for (host::config::Alarm* each :
       {&alarm.loss, &alarm.black, &alarm.freeze, &alarm.silence, &alarm.clipping}) {
    each->enabled = false;
  }
  settings.now = services.now;
  settings.timeText = [](Time) { return std::string("12:00:00"); };
  settings.latestFrame = services.presentFrame;
  settings.presentFrame = services.presentFrame;
  settings.wantsType = [window = services.window] { return window->WantsType(); };
  settings.frameSent = [window = services.window] { window->SetFrameSent(); };
  settings.driven = true;
  channel_ = host::ChannelSource::Create(std::move(settings), this);
  channel_->queue().FollowClock(services.now);
}

Time SimulatedChannel::nextRead() const {
  if (!packets_) {
    return kNever;
  }
  Time next = packets_->Next().arrival;
  if (session_ == nullptr) {
    return opensAt_;
  }
  if (model_->kind == host::SourceKind::kPull) {
    next = std::max(next, channel_->queue().roomAt());
  }
  if (!silent_) {
    next = std::min(next, latestPacket_ + kReadLimit);
  }
  if (fault_ < model_->faults.size()) {
    next = std::min(next, model_->faults[fault_].at);
  }
  return next;
}

void SimulatedChannel::ReadAt(Time now) {
  if (session_ == nullptr) {
    Open(now);
    return;
  }
  if (fault_ < model_->faults.size() && model_->faults[fault_].at <= now) {
    const Fault& fault = model_->faults[fault_++];
    if (fault.kind == Fault::Kind::kReopened) {
      Fail(now);
      opensAt_ = fault.at + fault.length;
    }
    return;
  }
  const SimulatedPacket packet = packets_->Next();
  if (packet.arrival > now ||
      (model_->kind == host::SourceKind::kPull && channel_->queue().roomAt() > now)) {
    if (!silent_ && latestPacket_ + kReadLimit <= now) {
      if (model_->kind == host::SourceKind::kPush) {
        // Datagrams have no connection that could have broken: reading continues.
        silent_ = true;
        Announce(host::SourceEvent::Kind::kFailed);
      } else {
        Fail(now);
        opensAt_ = now + kSecond / 4;
      }
    }
    return;
  }
  latestPacket_ = now;
  silent_ = false;
  packets_->Pop();
  Handle(packet);
}

void SimulatedChannel::Open(Time now) {
  // What came in the meantime is lost.
  while (packets_->Next().arrival < now) {
    packets_->Pop();
  }
  session_ = std::make_unique<Session>(*this);
  latestPacket_ = now;
  silent_ = false;
  Announce(host::SourceEvent::Kind::kOpened);
}

void SimulatedChannel::Fail(Time /*now*/) {
  shown_ = std::max(shown_, session_->placer.latest());
  session_.reset();
  Announce(host::SourceEvent::Kind::kFailed);
}

void SimulatedChannel::Announce(host::SourceEvent::Kind kind) {
  if (session_ != nullptr) {
    shown_ = std::max(shown_, session_->placer.latest());
  }
  shown_ = std::max(shown_, services_.now());
  host::SourceEvent news;
  news.kind = kind;
  news.hasVideo = true;
  news.hasAudio = model_->audio;
  // A caption about missing audio would cover what is read in the window.
  news.audioAbsence = model_->audio ? host::AudioAbsence::kNone : host::AudioAbsence::kOff;
  news.reason = "no data";
  channel_->queue().Push({shown_, shown_, 0, std::move(news)});
}

void SimulatedChannel::Handle(const SimulatedPacket& packet) {
  Session& session = *session_;
  const auto mapped = session.clock.Map(packet.isVideo ? session.videoStream : session.audioStream,
                                        {packet.dts, packet.pts, packet.duration});
  if (!packet.isVideo) {
    HandleAudio(packet, mapped);
    return;
  }
  session.jumps += mapped.discontinuity ? 1 : 0;
  if (!session.decoder.empty() && session.decoder.top().id.epoch != packet.id.epoch) {
    session.decoder = {};
  }
  session.decoder.push({packet.id, mapped.pts.has_value() ? mapped.pts : std::optional(mapped.dts),
                        packet.duration, session.jumps});
  if (session.decoder.size() > static_cast<std::size_t>(model_->reorder)) {
    const Frame frame = session.decoder.top();
    session.decoder.pop();
    Show(frame);
  }
}

void SimulatedChannel::Show(const Frame& frame) {
  const host::ItemTimes::Span span =
      session_->videoTimes.Frame(frame.given, frame.duration, frame.jumps);
  if (span.discontinuity) {
    session_->limiter.Restart();
  }
  if (!session_->limiter.Pass(span.start)) {
    return;
  }
  const LONG size = host::FrameBytes(WindowLayout::kWidth, WindowLayout::kHeight);
  ComPtr<IMediaSample> sample = channel_->videoPin().NewFrame(0, span.duration, false, size);
  if (!sample) {
    // A reader waits here until the streaming thread has delivered what is late.
    StreamAt(services_.now());
    sample = channel_->videoPin().NewFrame(0, span.duration, false, size);
  }
  BYTE* pixels = nullptr;
  if (!sample || FAILED(sample->GetPointer(&pixels))) {
    services_.violated(channel_->name() + " has no buffer for a frame");
    return;
  }
  std::memset(pixels, 128, static_cast<std::size_t>(size));
  WindowLayout::Write(pixels, WindowLayout::kWidth, frame.id);
  session_->placer.Add(span.start, span.duration, span.discontinuity, host::ReadyFrame{sample, {}});
  services_.placed(frame.id, channel_->queue().lastPushed().value_or(0));
  WatchLead(services_.now());
}

// The lead of a push source shrinks while it is longer than needed.
void SimulatedChannel::WatchLead(Time now) {
  constexpr Time kAmple = host::kSecond / 2;
  constexpr Time kMax = 60 * host::kSecond;
  Session& session = *session_;
  const Time spare =
      session.placer.lead() - session.placer.jitter() - host::LiveTimeline::Settings{}.lead;
  if (spare <= kAmple || model_->kind != host::SourceKind::kPush) {
    session.ampleSince.reset();
  } else if (!session.ampleSince) {
    session.ampleSince = now;
  } else if (now - *session.ampleSince > kMax) {
    services_.violated(channel_->name() + " keeps a lead longer than it needs");
    session.ampleSince = now;
  }
}

void SimulatedChannel::HandleAudio(const SimulatedPacket& packet,
                                   const host::SourceClock::Mapped& mapped) {
  const Time given = mapped.pts.value_or(mapped.dts);
  host::AudioPacket item;
  item.start = session_->audioTimes.Packet(given);
  item.duration = packet.duration;
  item.format = format_;
  item.packet = host::ffmpeg::MakePacket();
  av_new_packet(item.packet.get(), sizeof(ContentId));
  std::memcpy(item.packet->data, &packet.id, sizeof(ContentId));
  session_->placer.Add(item.start, item.duration, std::move(item));

  const host::ItemTimes::Span span = session_->audioTimes.Samples(given, packet.duration);
  const auto count = static_cast<int>(std::max<Time>(packet.duration * kLevelRate / kSecond, 1));
  const std::vector<float> samples(
      static_cast<std::size_t>(count),
      IsLoud(SimulatedSource::AudioTime(*model_, packet.id.number)) ? 1.0F : 0.0F);
  const float* const plane = samples.data();
  session_->meter.Push({&plane, 1}, count, kLevelRate, span.start,
                       [this](const host::LevelMeter::Reading& reading) {
                         session_->placer.Add(reading.start, reading.duration,
                                              host::ReadyLevels{reading.levels, reading.loudest});
                       });
}

bool SimulatedChannel::Suffers(Fault::Kind kind, Time now) const {
  return model_ != nullptr &&
         std::any_of(model_->faults.begin(), model_->faults.end(), [&](const Fault& fault) {
           return fault.kind == kind && fault.at <= now && now < fault.at + fault.length;
         });
}

void SimulatedChannel::WakeAt(Time now) {
  latestPacket_ = now;
  if (session_ != nullptr && model_->kind == host::SourceKind::kPush) {
    session_->clock.ReplaceStream(session_->videoStream, model_->wrapPeriod);
  }
}

void SimulatedChannel::PlaceAt(Time now) {
  const bool isShown = !Suffers(Fault::Kind::kHidden, now);
  if (isShown != isShown_) {
    isShown_ = isShown;
    services_.show(isShown);
  }
}

void SimulatedChannel::StreamAt(Time now) {
  if (!Suffers(Fault::Kind::kStarved, now)) {
    channel_->DeliverUpTo(now);
  }
}

}  // namespace simulation
