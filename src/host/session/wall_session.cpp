#include "host/session/wall_session.h"

#include <algorithm>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/channel/source/media_info.h"
#include "host/channel/source/shared_input.h"
#include "host/feed/feed_pin.h"
#include "pins/streams.h"
#include "platform/com/com.h"
#include "util/text_codecs.h"

namespace host {
namespace {

static_assert(config::kMaxDelay == kWindowLatency);

constexpr std::chrono::milliseconds kFrameLimit{60'000};
// How long all readers together may take to notice that they are cancelled and to close.
constexpr std::chrono::seconds kReadersLimit{2};
constexpr Time kFollowLead = 200 * kMillisecond;
// How often a rendering that waits for a channel or an output asks whether it is to stop.
constexpr std::chrono::milliseconds kStopPeriod{100};

std::size_t SlotsOf(const config::Wall& wall) {
  return wall.channels.size() + static_cast<std::size_t>(wall.spare);
}

// The windows of the wall file; spare slots are hidden.
std::vector<WindowState> WindowsOf(const config::Wall& wall) {
  std::vector<WindowState> windows;
  for (const config::Channel& channel : wall.channels) {
    windows.push_back(
        {channel.options.enabled, channel.window, channel.options.colour, channel.selected});
  }
  WindowState spare;
  spare.isShown = false;
  spare.place = {0, 0, config::kSmallestCanvas, config::kSmallestCanvas};
  windows.resize(SlotsOf(wall), spare);
  return windows;
}

// The first frame that is handed out: the one nearest to the moment at which the composer shows a
// source's time 0, exactly at whole frame rates, otherwise within half a frame.
std::int64_t FirstFrame(Ratio rate) {
  const Time frame = FrameDuration(rate);
  std::int64_t first = kWindowLatency / frame;
  while (FrameStart(first, rate) + frame / 2 <= kWindowLatency) {
    ++first;
  }
  return first;
}

}  // namespace

WallSession::WallSession(Settings settings)
    : settings_(std::move(settings)),
      firstFrame_(settings_.live ? 0 : FirstFrame(settings_.wall.canvas.frameRate)),
      clock_(settings_.wall.canvas.clockOffset),
      pressure_(settings_.live ? std::make_shared<WallPressure>() : nullptr),
      budget_(settings_.live ? std::make_shared<DecodeBudget>(DecodeBudget::Machine()) : nullptr),
      batches_(settings_.live
                   ? nullptr
                   : std::make_shared<DecodeBatches>(DecodeBudget::Machine().processors)),
      receivers_(settings_.live ? std::make_shared<SharedReceivers>() : nullptr),
      inputs_(settings_.live ? std::make_shared<SharedInputs>() : nullptr),
      schedule_(std::make_shared<WindowSchedule>(
          WindowsOf(settings_.wall), settings_.wall.canvas.frameRate,
          settings_.live ? settings_.wall.canvas.delay : kWindowLatency)),
      composer_(settings_.composerLibrary, settings_.wall.canvas, SlotsOf(settings_.wall),
                settings_.composerLogger != nullptr ? settings_.composerLogger : settings_.logger),
      graph_(FilterGraph::Create()) {
  outputs_ = std::make_unique<WallOutputs>(
      settings_.wall,
      WallOutputs::Settings{settings_.live, settings_.outputQueue, settings_.finishLimit,
                            settings_.screen, settings_.takeAudio},
      settings_.outputObserver, settings_.logger);
  const config::Canvas& canvas = settings_.wall.canvas;
  background_ =
      BackgroundSource::Create({canvas, LoadBackground(canvas, settings_.live, settings_.logger),
                                watch_, [this](Time start) { schedule_->FrameSent(start); }});
  if (settings_.live) {
    // A rendered wall waits for buffers all the time, which is no fault.
    background_->pin().ReportTo(settings_.logger, "background");
    background_->PaceBy({[this] { return clock_.Now(); },
                         [this](Time time) { return clock_.WaitUntil(time); },
                         [this] { clock_.Stop(); }});
  }
  sink_ = CompositionSink::Create(
      [this](const ComPtr<IMediaSample>& frame, Time start) { Take(frame, start); });
  Check(graph_->AddFilter(composer_.filter(), u"composer"), "add the composer to the graph");
  Check(graph_->AddFilter(background_.Get(), u"background"), "add the background to the graph");
  Check(graph_->AddFilter(sink_.Get(), u"composition"), "add the sink to the graph");
  if (outputs_->takesAudio()) {
    audioSink_ = AudioSink::Create(SlotsOf(settings_.wall),
                                   [this](std::size_t channel, ffmpeg::Packet packet, Time offset) {
                                     const Time latency = settings_.live ? 0 : kWindowLatency;
                                     packet->pts -= latency;
                                     packet->dts -= latency;
                                     outputs_->TakeAudio(channel, *packet, offset - latency);
                                   });
    Check(graph_->AddFilter(audioSink_.Get(), u"audio"), "add the sink of the audio to the graph");
  }
  for (std::size_t i = 0; i < SlotsOf(settings_.wall); ++i) {
    AddSlot(i);
  }
  Connect(background_->pin(), composer_.backgroundPin(), "the background");
  Check(graph_->ConnectDirect(composer_.compositionPin(), sink_->pin(), nullptr),
        "connect the composer's output");
}

WallSession::~WallSession() {
  Stop();
  Finish();
}

void WallSession::Take(const ComPtr<IMediaSample>& frame, Time start) {
  NotePressure(start);
  const Time first = FrameStart(firstFrame_, settings_.wall.canvas.frameRate);
  if (start >= first) {
    if (composed_ == 0 && settings_.live) {
      firstComposed_ = start;
    }
    ++composed_;
    composedAt_.store(std::chrono::steady_clock::now().time_since_epoch().count(),
                      std::memory_order_relaxed);
    outputs_->Take(frame, start, first);
    if (settings_.takeFrame) {
      settings_.takeFrame(frame, start - first);
    }
  }
  schedule_->FrameComposed(start);
  watch_->Delivered(start);
}

void WallSession::Connect(FeedPin& from, IPin* to, const std::string& what) {
  Check(graph_->ConnectDirect(&from, to, nullptr), "connect " + what + " to the composer");
}

// Once a second: the frames that are lost when decoding takes too much of the machine.
void WallSession::NotePressure(Time start) {
  if (pressure_ && start - pressureAt_ >= kSecond) {
    pressureAt_ = start;
    pressure_->Observe(start, counters().late + outputs_->set().droppedBeforeEncoding());
  }
}

ChannelSettings WallSession::SettingsOf(std::size_t slot, const config::Channel& channel) {
  ChannelSettings settings;
  settings.channel = channel;
  settings.canvas = settings_.wall.canvas;
  settings.windows = schedule_;
  settings.slot = slot;
  if (settings_.live) {
    settings.now = [this] { return clock_.Now(); };
  }
  WallWindow* const window = windows_[slot].Get();
  settings.timeText = [this](Time time) { return TimeText(time); };
  settings.wantsType = [window] { return window->WantsType(); };
  settings.frameSent = [window] { window->SetFrameSent(); };
  settings.latestFrame = [this] { return background_->latestFrame(); };
  settings.presentFrame = [this] { return background_->presentFrame(); };
  if (audioSink_) {
    settings.audioTrack = outputs_->track(slot);
  }
  settings.logger = settings_.logger;
  settings.renderStep = settings_.renderStep;
  settings.pressure = pressure_;
  settings.decodeBatches = batches_;
  settings.receivers = receivers_;
  settings.inputs = inputs_;
  if (budget_) {
    settings.decodeSeat = std::make_shared<DecodeSeat>(budget_, settings.channel.selected);
  }
  return settings;
}

void WallSession::AddSlot(std::size_t slot) {
  const auto& channels = settings_.wall.channels;
  windows_.push_back(WallWindow::Create(schedule_, slot, settings_.wall.canvas.frameRate));
  const std::string name =
      slot < channels.size() ? channels[slot].name : "Spare " + std::to_string(slot + 1);
  ComPtr<ChannelSource> source;
  if (slot < channels.size()) {
    ChannelSettings settings = SettingsOf(slot, channels[slot]);
    settings.label = firstLabels_.TextOf(channels[slot].label);
    source = ChannelSource::Create(std::move(settings), settings_.observer);
  } else {
    source =
        ChannelSource::CreateSpare({settings_.wall.canvas, settings_.live}, settings_.observer);
  }
  if (settings_.live) {
    source->ReportFullBuffersTo(settings_.logger, name);
  }
  Check(graph_->AddFilter(source.Get(), WidenAscii("channel " + std::to_string(slot)).c_str()),
        "add channel \"" + name + "\" to the graph");
  const ComposerFilter::Input input =
      composer_.AddInput(static_cast<LONG>(slot), windows_[slot].Get());
  const std::string what = "channel \"" + name + "\"";
  Connect(source->videoPin(), input.video, what);
  Connect(source->textPin(), input.text, "the label of " + what);
  Connect(source->audioAlarmPin(), input.audioAlarm, "the levels of " + what);
  Connect(source->videoAlarmPin(), input.videoAlarm, "the video alarm of " + what);
  channels_.push_back(source);
  detached_.push_back(slot >= channels.size());
  if (slot < channels.size()) {
    FollowLabel(slot, channels[slot].label);
  }
  ConnectAudio(slot, input, what);
}

void WallSession::FollowLabel(std::size_t slot, const config::Label& label) {
  labelFiles_.Remove(slot);
  if (settings_.live && label.source == config::Label::Source::kFile) {
    labelFiles_.Add(slot, label.file, [source = channels_[slot].Get()](const std::string& text) {
      source->SetLabel(text);
    });
  }
}

void WallSession::Assign(std::size_t slot, const config::Channel* channel,
                         const ChannelControls& controls) {
  ChannelSource& source = *channels_.at(slot);
  if (channel == nullptr) {
    labelFiles_.Remove(slot);
    source.Assign(std::nullopt, controls);
    return;
  }
  ChannelSettings settings = SettingsOf(slot, *channel);
  settings.label = GivenText(channel->label);
  source.Assign(std::move(settings), controls);
  FollowLabel(slot, channel->label);
}

void WallSession::SetControls(std::size_t slot, const ChannelControls& controls) {
  channels_.at(slot)->SetControls(controls);
}

void WallSession::SetLabel(std::size_t slot, const config::Label& label) {
  channels_.at(slot)->SetLabel(GivenText(label));
  FollowLabel(slot, label);
}

std::optional<std::int64_t> WallSession::Place(const std::vector<WindowState>& windows) {
  const std::optional<Time> start =
      schedule_->Change(windows, settings_.live ? clock_.Now() : background_->latestFrame());
  for (std::size_t slot = 0; start && slot < windows.size(); ++slot) {
    channels_[slot]->WantSize(windows[slot].place.width, windows[slot].place.height);
  }
  return start ? std::optional(NumberOf(*start)) : std::nullopt;
}

std::int64_t WallSession::Follow(std::optional<std::size_t> slot) {
  // Packets that come from now on are used; the decoder needs some before its first samples.
  const Time from = clock_.Now() + settings_.wall.canvas.delay + kFollowLead;
  outputs_->Follow(slot, from);
  return NumberOf(from);
}

void WallSession::Listen(std::optional<std::size_t> slot) {
  outputs_->Listen(slot, clock_.Now() + settings_.wall.canvas.delay + kFollowLead);
}

std::int64_t WallSession::NumberOf(Time start) const {
  const Ratio rate = settings_.wall.canvas.frameRate;
  return FrameAt(start, rate) - FrameAt(firstComposed_, rate);
}

void WallSession::Tidy() {
  for (const ComPtr<ChannelSource>& channel : channels_) {
    channel->EndRetired();
  }
}

void WallSession::ConnectAudio(std::size_t index, const ComposerFilter::Input& input,
                               const std::string& what) {
  if (!audioSink_ || !outputs_->track(index)) {
    return;
  }
  Connect(channels_[index]->audioPin(), input.audio, "the audio of " + what);
  // The output takes its type and buffers from the input, which therefore comes first.
  Check(graph_->ConnectDirect(input.audioOutput, audioSink_->pin(index), nullptr),
        "connect the composer's audio of " + what);
}

// The time of day of a live wall; of a rendered one, the time in the output.
std::string WallSession::TimeText(Time time) {
  if (settings_.live) {
    return timeOfDay_.Text(time, clock_.Now(), std::chrono::system_clock::now());
  }
  const auto seconds = static_cast<int>(time / kSecond);
  return qorp::StringFormat("%02d:%02d:%02d", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
}

void WallSession::Start() {
  Check(graph_->SetSyncSource(clock_.reference()), "give the graph its clock");
  clock_.Start();
  Check(graph_->Run(0), "run the graph");
  labelFiles_.Start();
}

std::optional<bool> WallSession::AdvanceChannels(Time time, const RenderControl& control) {
  using Clock = std::chrono::steady_clock;
  for (const ComPtr<ChannelSource>& channel : channels_) {
    channel->queue().AdvanceTo(time);
  }
  bool ended = true;
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    if (detached_[i]) {
      continue;
    }
    ChannelQueue& queue = channels_[i]->queue();
    const Clock::time_point limit = Clock::now() + control.stallLimit;
    bool taken = false;
    do {
      taken = queue.WaitUntilTaken(std::min(kStopPeriod, control.stallLimit));
      if (!taken && control.cancelled && control.cancelled()) {
        return std::nullopt;
      }
    } while (!taken && Clock::now() < limit);
    if (!taken) {
      detached_[i] = true;
      queue.DetachReader();
      settings_.observer->ChannelFailed(channels_[i]->name(),
                                        "it gives nothing any more; the wall goes on without it",
                                        std::nullopt);
    } else if (!queue.ended()) {
      ended = false;
    }
  }
  return ended;
}

Time WallSession::LastFrameWithContent(std::int64_t frame) {
  Time last = 0;
  for (const ComPtr<ChannelSource>& channel : channels_) {
    last = std::max(last, channel->queue().lastPushed().value_or(0));
  }
  const Ratio rate = settings_.wall.canvas.frameRate;
  while (frame > 0 && FrameStart(frame - 1, rate) >= last) {
    --frame;
  }
  return FrameStart(frame, rate);
}

bool WallSession::WaitForOutputs(const RenderControl& control) {
  while (!outputs_->set().WaitForRoom(kStopPeriod)) {
    if (control.cancelled && control.cancelled()) {
      return false;
    }
  }
  return !outputs_->set().allFailed();
}

void WallSession::Render(const RenderControl& control) {
  Check(graph_->Run(0), "run the graph");
  const Ratio rate = settings_.wall.canvas.frameRate;
  std::optional<Time> endsAt;
  if (control.length) {
    endsAt = *control.length + FrameStart(firstFrame_, rate);
  }
  for (std::int64_t frame = 0; !endsAt || FrameStart(frame, rate) < *endsAt; ++frame) {
    if ((control.stop && control.stop()) || !WaitForOutputs(control)) {
      break;
    }
    const Time time = FrameStart(frame, rate);
    const std::optional<bool> ended = AdvanceChannels(time, control);
    if (!ended) {
      break;
    }
    if (*ended && !endsAt) {
      endsAt = LastFrameWithContent(frame) + kWindowLatency;
    }
    if (!background_->SendFrame(frame) || !watch_->Wait(kFrameLimit)) {
      throw GraphError("frame " + std::to_string(frame) + " never came out of the composer");
    }
  }
  Stop();
}

void WallSession::Stop() {
  for (const ComPtr<ChannelSource>& channel : channels_) {
    channel->CancelReader();
  }
  labelFiles_.Stop();
  clock_.Stop();
  graph_->Stop();
}

int WallSession::Finish(const std::function<bool()>& hurried) {
  outputs_->Finish(hurried);
  const auto deadline = std::chrono::steady_clock::now() + kReadersLimit;
  return static_cast<int>(std::count_if(
      channels_.begin(), channels_.end(),
      [&](const ComPtr<ChannelSource>& channel) { return !channel->EndReader(deadline); }));
}

WallSession::Counters WallSession::counters() const {
  const BackgroundSource::Counters& counters = background_->counters();
  return {counters.sent, composed_, counters.late, counters.noFreeBuffer};
}

}  // namespace host
