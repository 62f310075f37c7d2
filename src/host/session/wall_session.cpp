#include "host/session/wall_session.h"

#include <algorithm>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/channel/source/media_info.h"
#include "host/feed/feed_pin.h"
#include "host/session/background_picture.h"
#include "host/session/wall_outputs.h"
#include "pins/streams.h"
#include "platform/com/wide_text.h"
#include "platform/os/thread.h"
#include "util/text_codecs.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kFrameLimit{60'000};
// For all readers together to notice that they are cancelled, and to close their connections.
constexpr std::chrono::seconds kReadersLimit{2};
// For all label files together when the wall starts, and at least for each of them.
constexpr std::chrono::seconds kLabelsLimit{2};
constexpr std::chrono::milliseconds kLabelLimit{100};
// For the background picture.
constexpr std::chrono::seconds kBackgroundLimit{5};
// How often a rendering that waits for a channel or an output asks whether it is to stop.
constexpr std::chrono::milliseconds kStopPeriod{100};

ComposerFilter::Canvas CanvasOf(const config::Wall& wall) {
  return {static_cast<int>(wall.channels.size()),
          wall.canvas.width,
          wall.canvas.height,
          wall.canvas.aspect,
          wall.canvas.frameRate,
          wall.canvas.preroll};
}

// The first frame that is handed out: the one that is nearest to the moment at which the composer
// shows a source's time 0. That is it at whole rates; at others it may lie half a frame off.
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
      labelsUntil_(std::chrono::steady_clock::now() + kLabelsLimit),
      clock_(settings_.wall.canvas.clockOffset),
      pressure_(settings_.live ? std::make_shared<WallPressure>() : nullptr),
      budget_(settings_.live ? std::make_shared<DecodeBudget>(DecodeBudget::Machine()) : nullptr),
      composer_(settings_.composerLibrary, CanvasOf(settings_.wall),
                settings_.composerLogger != nullptr ? settings_.composerLogger : settings_.logger),
      graph_(FilterGraph::Create()) {
  OutputSet::Settings outputs = OutputsOfWall(settings_.wall, settings_.live);
  outputs.queue = settings_.outputQueue;
  outputs.finishLimit = settings_.finishLimit;
  outputs_ = std::make_unique<OutputSet>(outputs, settings_.outputObserver, settings_.logger);
  const config::Canvas& canvas = settings_.wall.canvas;
  background_ = BackgroundSource::Create(
      {canvas.width, canvas.height, canvas.frameRate, canvas.aspect, Background(), watch_});
  if (settings_.live) {
    // A wall that is rendered waits for buffers all the time: that is its pace.
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
  if (!outputs_->empty()) {
    for (const OutputSession::Track& track : outputs.tracks) {
      audioTracks_.push_back(track.audio);
    }
    audioSink_ = AudioSink::Create(settings_.wall.channels.size(),
                                   [this](std::size_t channel, ffmpeg::Packet packet, Time shift) {
                                     const Time latency = settings_.live ? 0 : kWindowLatency;
                                     packet->pts -= latency;
                                     packet->dts -= latency;
                                     outputs_->TakeAudio(channel, *packet, shift - latency);
                                   });
    Check(graph_->AddFilter(audioSink_.Get(), u"audio"), "add the sink of the audio to the graph");
  }
  for (std::size_t i = 0; i < settings_.wall.channels.size(); ++i) {
    AddChannel(i);
  }
  Connect(background_->pin(), composer_.backgroundPin(), "the background");
  Check(graph_->ConnectDirect(composer_.compositionPin(), sink_->pin(), nullptr),
        "connect the composer's output");
}

// A live wall does without a frame whose mount is dead.
std::vector<std::uint8_t> WallSession::Background() const {
  const config::Canvas& canvas = settings_.wall.canvas;
  auto picture = os::CallWithin<std::vector<std::uint8_t>>(
      kBackgroundLimit, [canvas] { return MakeBackground(canvas); }, "background file");
  if (picture) {
    return std::move(*picture);
  }
  const std::string file = canvas.background.picture.string();
  if (!settings_.live) {
    throw MediaError(MediaError::Kind::kTimedOut, "no answer from its file system", file);
  }
  if (settings_.logger != nullptr) {
    settings_.logger->log(qorp::log::kError,
                          "no answer from the file system of the background picture %s; the wall "
                          "goes on without it",
                          file.c_str());
  }
  return ColourBackground(canvas.width, canvas.height, {});
}

WallSession::~WallSession() {
  Stop();
  Finish();
}

void WallSession::Take(const ComPtr<IMediaSample>& frame, Time start) {
  NotePressure(start);
  const Time first = FrameStart(firstFrame_, settings_.wall.canvas.frameRate);
  if (start >= first) {
    ++composed_;
    outputs_->Take(frame, start - first);
    if (settings_.takeFrame) {
      settings_.takeFrame(frame, start - first);
    }
  }
  watch_->Delivered(start);
}

void WallSession::Connect(FeedPin& from, IPin* to, const std::string& what) {
  Check(graph_->ConnectDirect(&from, to, nullptr), "connect " + what + " to the composer");
}

// Once a second: what the wall loses when decoding takes too much of the machine.
void WallSession::NotePressure(Time start) {
  if (pressure_ && start - pressureAt_ >= kSecond) {
    pressureAt_ = start;
    pressure_->Observe(start, counters().late + outputs_->droppedBeforeEncoding());
  }
}

ChannelSettings WallSession::SettingsOf(std::size_t index, WallWindow* window) {
  ChannelSettings settings;
  settings.channel = settings_.wall.channels[index];
  settings.canvas = settings_.wall.canvas;
  settings.label = LabelOf(settings.channel.label);
  if (settings_.live) {
    settings.now = [this] { return clock_.Now(); };
  }
  settings.timeText = [this](Time time) { return TimeText(time); };
  settings.wantsType = [window] { return window->WantsType(); };
  settings.frameSent = [window] { window->SetFrameSent(); };
  settings.presentFrame = [this] { return background_->presentFrame(); };
  if (audioSink_) {
    settings.audioTrack = audioTracks_.at(index);
  }
  settings.logger = settings_.logger;
  settings.renderStep = settings_.renderStep;
  settings.pressure = pressure_;
  if (budget_) {
    settings.decodeSeat = std::make_shared<DecodeSeat>(budget_, settings.channel.selected);
  }
  return settings;
}

// The text that a channel begins with. A rendered wall keeps it: its files are read once.
std::string WallSession::LabelOf(const config::Label& label) const {
  if (label.source == config::Label::Source::kNone) {
    return {};
  }
  if (label.source == config::Label::Source::kFile) {
    // A dead mount holds up all of them together no longer than that.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        labelsUntil_ - std::chrono::steady_clock::now());
    const auto text = os::CallWithin<std::optional<std::string>>(
        std::max(left, kLabelLimit), [file = LabelFile(label.file)] { return file.Read(); },
        "label");
    return text.value_or(std::nullopt).value_or(label.text);
  }
  return label.text;
}

void WallSession::AddChannel(std::size_t index) {
  const config::Channel& channel = settings_.wall.channels[index];
  const ComPtr<WallWindow> window =
      WallWindow::Create({channel.options.enabled, channel.window.x, channel.window.y,
                          channel.options.colour, channel.selected},
                         settings_.wall.canvas.frameRate);
  const ComPtr<ChannelSource> source =
      ChannelSource::Create(SettingsOf(index, window.Get()), settings_.observer);
  if (settings_.live) {
    source->ReportFullBuffersTo(settings_.logger);
    source->queue().FollowClock([this] { return clock_.Now(); });
  }
  Check(graph_->AddFilter(source.Get(), WidenAscii("channel " + std::to_string(index)).c_str()),
        "add channel \"" + channel.name + "\" to the graph");
  const ComposerFilter::Input input = composer_.AddInput(static_cast<LONG>(index), window.Get());
  const std::string what = "channel \"" + channel.name + "\"";
  Connect(source->videoPin(), input.video, what);
  Connect(source->textPin(), input.text, "the label of " + what);
  Connect(source->audioAlarmPin(), input.audioAlarm, "the levels of " + what);
  Connect(source->videoAlarmPin(), input.videoAlarm, "the video alarm of " + what);
  if (settings_.live && channel.label.source == config::Label::Source::kFile) {
    labelFiles_.Add(channel.label.file,
                    [source = source.Get()](const std::string& text) { source->SetLabel(text); });
  }
  windows_.push_back(window);
  channels_.push_back(source);
  detached_.push_back(false);
  ConnectAudio(index, input, what);
}

void WallSession::ConnectAudio(std::size_t index, const ComposerFilter::Input& input,
                               const std::string& what) {
  if (!audioSink_ || !audioTracks_.at(index)) {
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
  while (!outputs_->WaitForRoom(kStopPeriod)) {
    if (control.cancelled && control.cancelled()) {
      return false;
    }
  }
  return !outputs_->allFailed();
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
