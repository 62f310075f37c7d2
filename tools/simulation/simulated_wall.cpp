#include "tools/simulation/simulated_wall.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/feed/feed_pin.h"
#include "host/output/interleaver.h"
#include "host/output/packet_queue.h"
#include "host/output/sinks.h"
#include "host/session/background.h"
#include "host/session/composer_filter.h"
#include "log/i_log_perf.h"
#include "platform/com/com.h"
#include "platform/graph/filter_graph.h"
#include "tools/simulation/simulated_channel.h"
#include "tools/simulation/watcher.h"

namespace simulation {

namespace {

using host::kMillisecond;
using host::kSecond;

// A streaming thread wakes up that often at least.
constexpr Time kFeedStep = 10 * kMillisecond;
constexpr int kMargin = 4;
constexpr std::size_t kMaxViolations = 5;
constexpr int kGop = 25;  // frames

// Notices when the composer sets the time of a channel.
class Logger final : public qorp::log::ILogPerf {
 public:
  using Resynchronized = std::function<void(std::size_t channel)>;

  explicit Logger(Resynchronized resynchronized) : resynchronized_(std::move(resynchronized)) {}

  void log(std::int32_t, const char* format, ...) override {
    if (std::strstr(format, "resynchronizes") != nullptr) {
      va_list arguments;
      va_start(arguments, format);
      resynchronized_(static_cast<std::size_t>(va_arg(arguments, int)));
      va_end(arguments);
    }
  }
  void RegisterPin(const char*) override {}
  void NotifyBufferFull(const char*) override {}
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override {}
  void IncrementDecodedPictures() override {}
  void AddPoliticChoices(std::int32_t) override {}

 private:
  const Resynchronized resynchronized_;
};

host::ffmpeg::Packet VideoPacket(Time time, Time duration, bool key) {
  host::ffmpeg::Packet packet = host::ffmpeg::MakePacket();
  av_new_packet(packet.get(), 1000);
  packet->pts = packet->dts = time;
  packet->duration = duration;
  packet->flags = key ? AV_PKT_FLAG_KEY : 0;
  return packet;
}

// The queue and the interleaver of an output, and a consumer that stalls.
class SimulatedOutput {
 public:
  SimulatedOutput(const OutputModel& model, std::size_t channels, Time frameTime)
      : model_(model), frameTime_(frameTime), counters_(channels), queue_({}, counters_) {}

  void TakeFrame(Time time) {
    ++frames_;
    encoder_.push_back(time);
    if (encoder_.size() > static_cast<std::size_t>(model_.encoderDelay)) {
      Encode();
    }
  }
  void TakeAudio(std::size_t channel, const AVPacket& packet, Time offset) {
    ++counters_.of(static_cast<int>(channel)).received;
    queue_.PushDropping({static_cast<int>(channel), host::ffmpeg::RefPacket(packet), offset});
  }
  // What its thread does up to that moment.
  void WriteAt(Time now, const host::Interleaver::Write& write) {
    for (const Fault& stall : model_.stalls) {
      if (stall.at <= now && now < stall.at + stall.length) {
        return;
      }
    }
    WriteAll(write);
  }
  void Finish(const host::Interleaver::Write& write) {
    while (!encoder_.empty()) {
      Encode();
    }
    WriteAll(write);
    interleaver_->Finish(counted(write));
    interleaver_.reset();
  }
  // Empty, or which counters do not add up once it is finished.
  std::string Account() const {
    if (counters_.of(host::OutputCounters::kVideo).received != frames_) {
      return "frames that never came to an output";
    }
    for (int track = host::OutputCounters::kVideo; track < static_cast<int>(counters_.channels());
         ++track) {
      const host::TrackCounters& counters = counters_.of(track);
      if (counters.received != counters.written + counters.dropped + counters.leftOut) {
        return "track " + std::to_string(track) + ": received " +
               std::to_string(counters.received) + ", written " + std::to_string(counters.written) +
               ", dropped " + std::to_string(counters.dropped) + ", left out " +
               std::to_string(counters.leftOut);
      }
    }
    return {};
  }
  std::size_t queuedBytes() const { return queue_.bytes(); }
  std::uint64_t lostFrames() const {
    const host::TrackCounters& video = counters_.of(host::OutputCounters::kVideo);
    return video.dropped + video.leftOut;
  }

 private:
  void Encode() {
    ++counters_.of(host::OutputCounters::kVideo).received;
    queue_.PushDropping({host::TrackPacket::kVideo,
                         VideoPacket(encoder_.front(), frameTime_, encoded_++ % kGop == 0), 0});
    encoder_.pop_front();
  }
  host::Interleaver::Write counted(const host::Interleaver::Write& write) {
    return [this, &write](int track, host::ffmpeg::Packet packet) {
      ++counters_.of(track).written;
      write(track, std::move(packet));
    };
  }
  void WriteAll(const host::Interleaver::Write& write) {
    const host::Interleaver::Write counting = counted(write);
    while (queue_.bytes() > 0) {
      host::TrackPacket packet = *queue_.Pop();
      if (packet.track == host::TrackPacket::kVideo) {
        interleaver_->PushVideo(std::move(packet.packet), counting);
      } else {
        interleaver_->PushAudio(static_cast<std::size_t>(packet.track), std::move(packet.packet),
                                packet.offset);
      }
    }
  }

  const OutputModel& model_;
  const Time frameTime_;
  host::OutputCounters counters_;
  host::PacketQueue queue_;
  std::unique_ptr<host::Interleaver> interleaver_ = std::make_unique<host::Interleaver>(counters_);
  std::deque<Time> encoder_;
  std::uint64_t encoded_ = 0;
  std::uint64_t frames_ = 0;
};

host::config::Canvas CanvasFor(const Scenario& scenario) {
  host::config::Canvas canvas;
  canvas.width = (WindowLayout::kWidth + kMargin) * static_cast<int>(scenario.sources.size());
  canvas.height = WindowLayout::kHeight + kMargin;
  canvas.frameRate = scenario.canvasRate;
  canvas.delay = scenario.delay;
  return canvas;
}

class SimulatedWall {
 public:
  SimulatedWall(const Scenario& scenario, const std::string& library,
                std::optional<std::size_t> alone)
      : scenario_(scenario),
        frameTime_(host::FrameDuration(scenario.canvasRate)),
        canvas_(CanvasFor(scenario)),
        watch_(std::make_shared<host::FrameWatch>()),
        composer_(library, canvas_, scenario.sources.size(), &logger_),
        graph_(FilterGraph::Create()) {
    const std::size_t count = scenario.sources.size();
    host::BackgroundSource::Settings background;
    background.canvas = canvas_;
    background.picture.assign(
        static_cast<std::size_t>(host::FrameBytes(canvas_.width, canvas_.height)), 16);
    background.watch = watch_;
    for (std::size_t i = 0; i < scenario_.sources.size(); ++i) {
      shown_.push_back({true,
                        {static_cast<int>(i) * (WindowLayout::kWidth + kMargin), 0,
                         WindowLayout::kWidth, WindowLayout::kHeight},
                        "",
                        false});
    }
    schedule_ = std::make_shared<host::WindowSchedule>(shown_, scenario_.canvasRate, canvas_.delay);
    background.sending = [this](host::Time start) { schedule_->FrameSent(start); };
    background_ = host::BackgroundSource::Create(std::move(background));
    sink_ = host::CompositionSink::Create(
        [this](const ComPtr<IMediaSample>& frame, Time start) { Composed(frame, start); });
    audioSink_ = host::AudioSink::Create(
        count, [this](std::size_t channel, const host::ffmpeg::Packet& packet, Time offset) {
          for (const auto& output : outputs_) {
            output->TakeAudio(channel, *packet, offset);
          }
        });
    for (const OutputModel& output : scenario.outputs) {
      outputs_.push_back(std::make_unique<SimulatedOutput>(output, count, frameTime_));
    }
    Add(composer_.filter());
    Add(background_.Get());
    Add(sink_.Get());
    Add(audioSink_.Get());
    for (std::size_t i = 0; i < count; ++i) {
      AddChannel(i, !alone || *alone == i ? &scenario.sources[i] : nullptr);
    }
    Connect(&background_->pin(), composer_.backgroundPin());
    Connect(composer_.compositionPin(), sink_->pin());
  }
  ~SimulatedWall() { graph_->Stop(); }
  SimulatedWall(const SimulatedWall&) = delete;
  SimulatedWall& operator=(const SimulatedWall&) = delete;

  Result Run(const std::function<void(Time)>& fellAsleep) {
    host::Check(graph_->Run(0), "run the graph");
    const host::Interleaver::Write forget = [](int, const host::ffmpeg::Packet&) {};
    std::int64_t frame = host::FrameAt(scenario_.begin, scenario_.canvasRate) + 1;
    for (; host::FrameStart(frame, scenario_.canvasRate) < scenario_.begin + scenario_.length &&
           violations_.size() < kMaxViolations;
         ++frame) {
      Time time = host::FrameStart(frame, scenario_.canvasRate);
      if (sleep_ < scenario_.sleeps.size() && scenario_.sleeps[sleep_].at <= time) {
        if (fellAsleep) {
          fellAsleep(time);
        }
        Sleep(scenario_.sleeps[sleep_++]);
        frame = host::FrameAt(now_, scenario_.canvasRate) + 1;
        time = host::FrameStart(frame, scenario_.canvasRate);
      }
      if (time < now_) {
        Violated("frame " + std::to_string(frame) + " lies before the wall's time");
        break;
      }
      RunChannels(time);
      ++sent_;
      if (!background_->SendFrame(frame) || !watch_->Wait(std::chrono::seconds(20))) {
        Violated("frame " + std::to_string(frame) + " never came out of the composer");
        break;
      }
      for (std::size_t i = 0; i < outputs_.size(); ++i) {
        outputs_[i]->WriteAt(time, i == 0 ? write_ : forget);
        if (outputs_[i]->queuedBytes() > kQueueLimit) {
          Violated("an output's queue holds " + std::to_string(outputs_[i]->queuedBytes()) +
                   " bytes");
        }
      }
    }
    graph_->Stop();
    if (composed_ != sent_) {
      Violated(std::to_string(composed_) + " of " + std::to_string(sent_) +
               " frames were composed");
    }
    for (std::size_t i = 0; i < outputs_.size(); ++i) {
      outputs_[i]->Finish(i == 0 ? write_ : forget);
      if (const std::string wrong = outputs_[i]->Account(); !wrong.empty()) {
        Violated("output " + std::to_string(i) + ", " + wrong);
      }
    }
    if (outputs_[0]->lostFrames() > 0) {
      Violated("the output that keeps up lost " + std::to_string(outputs_[0]->lostFrames()) +
               " frames");
    }
    for (const auto& channel : channels_) {
      if (channel->source().queue().dropped() > 0) {
        Violated(channel->source().name() + ": its queue was full");
      }
    }
    Result result;
    result.violations = violations_;
    result.frames = composed_;
    for (const Watcher& watcher : watchers_) {
      result.digests.push_back(watcher.digest());
    }
    return result;
  }

 private:
  static constexpr std::size_t kQueueLimit = (32U << 20) + 10'000;

  void Add(IBaseFilter* filter) {
    host::Check(graph_->AddFilter(filter, u"filter"), "add a filter");
  }
  void Connect(IPin* from, IPin* to) {
    host::Check(graph_->ConnectDirect(from, to, nullptr), "connect two pins");
  }

  void AddChannel(std::size_t index, const SourceModel* model) {
    windows_.push_back(host::WallWindow::Create(schedule_, index, scenario_.canvasRate));
    Watcher& watcher =
        watchers_.emplace_back("channel " + std::to_string(index), model, canvas_, scenario_.begin,
                               [this](const std::string& what) { Violated(what); });
    channels_.push_back(std::make_unique<SimulatedChannel>(
        index, model, scenario_.seed * 31 + index, scenario_.begin, canvas_,
        SimulatedChannel::Services{
            [this] { return now_; }, [this] { return background_->latestFrame(); },
            [this](const std::string& what) { Violated(what); },
            [&watcher](ContentId id, Time due) { watcher.Placed(id, due); }, windows_.back(),
            [this, index](bool isShown) {
              shown_[index].isShown = isShown;
              schedule_->Change(shown_, background_->latestFrame());
            }}));
    host::ChannelSource& source = channels_.back()->source();
    Add(&source);
    const host::ComposerFilter::Input input =
        composer_.AddInput(static_cast<LONG>(index), windows_.back().Get());
    Connect(&source.videoPin(), input.video);
    Connect(&source.textPin(), input.text);
    Connect(&source.audioAlarmPin(), input.audioAlarm);
    Connect(&source.videoAlarmPin(), input.videoAlarm);
    Connect(&source.audioPin(), input.audio);
    Connect(input.audioOutput, audioSink_->pin(index));
  }

  void Sleep(const Fault& sleep) {
    now_ = sleep.at + sleep.length;
    for (const auto& channel : channels_) {
      channel->WakeAt(now_);
    }
  }

  // All channels up to the wall's time `until`, each at the moments of its own events.
  void RunChannels(Time until) {
    const Time from = now_;
    for (const auto& channel : channels_) {
      for (now_ = from;;) {
        const Time next = std::min(std::max(channel->nextRead(), now_), until);
        while (now_ + kFeedStep <= next) {
          now_ += kFeedStep;
          channel->StreamAt(now_);
        }
        now_ = next;
        if (channel->nextRead() > now_) {
          break;
        }
        channel->ReadAt(now_);
      }
      channel->StreamAt(now_);
      channel->PlaceAt(now_);
    }
    now_ = until;
  }

  // On the composition thread, while this one waits for it.
  void Composed(const ComPtr<IMediaSample>& frame, Time start) {
    ++composed_;
    BYTE* pixels = nullptr;
    frame->GetPointer(&pixels);
    for (std::size_t i = 0; i < watchers_.size(); ++i) {
      const BYTE* const window = pixels + i * (WindowLayout::kWidth + kMargin);
      watchers_[i].Frame(start, WindowLayout::Read(window, canvas_.width),
                         WindowLayout::MeterIsLit(window, canvas_.width));
    }
    for (const auto& output : outputs_) {
      output->TakeFrame(start);
    }
    schedule_->FrameComposed(start);
    watch_->Delivered(start);
  }

  void Written(int track, const AVPacket& packet) {
    // What is written begins at 0 with the first frame of the wall.
    const Time begin = host::FrameStart(host::FrameAt(scenario_.begin, scenario_.canvasRate) + 1,
                                        scenario_.canvasRate);
    const Time time = begin + packet.dts;
    if (track == host::OutputCounters::kVideo) {
      writtenVideo_ = time;
      for (Watcher& watcher : watchers_) {
        watcher.FrameWritten(time);
      }
      return;
    }
    if (time < writtenVideo_ - host::Interleaver::kMaxLateness) {
      Violated("audio of channel " + std::to_string(track) + " is written far behind the video");
    }
    ContentId id;
    std::memcpy(&id, packet.data, sizeof(id));
    watchers_[static_cast<std::size_t>(track)].AudioWritten(time, packet.duration, id);
  }

  void Violated(const std::string& what) {
    if (violations_.size() < kMaxViolations) {
      violations_.push_back(what);
    }
  }

  const Scenario& scenario_;
  const Time frameTime_;
  const host::config::Canvas canvas_;
  Time now_ = scenario_.begin;
  Logger logger_{[this](std::size_t channel) { watchers_[channel].Resynchronized(now_); }};
  std::vector<std::string> violations_;
  std::size_t sleep_ = 0;  // the next one
  std::uint64_t sent_ = 0;
  std::uint64_t composed_ = 0;
  Time writtenVideo_ = 0;
  const host::Interleaver::Write write_ = [this](int track, const host::ffmpeg::Packet& packet) {
    Written(track, *packet);
  };
  std::shared_ptr<host::FrameWatch> watch_;
  std::deque<Watcher> watchers_;
  std::vector<std::unique_ptr<SimulatedOutput>> outputs_;
  // The graph is destroyed first and with it every filter; then the composer's library.
  host::ComposerFilter composer_;
  std::vector<host::WindowState> shown_;
  std::shared_ptr<host::WindowSchedule> schedule_;
  std::vector<ComPtr<host::WallWindow>> windows_;
  std::vector<std::unique_ptr<SimulatedChannel>> channels_;
  ComPtr<host::BackgroundSource> background_;
  ComPtr<host::CompositionSink> sink_;
  ComPtr<host::AudioSink> audioSink_;
  ComPtr<FilterGraph> graph_;
};

}  // namespace

Result Run(const Scenario& scenario, const std::string& composerLibrary,
           std::optional<std::size_t> alone, const std::function<void(Time)>& fellAsleep) {
  return SimulatedWall(scenario, composerLibrary, alone).Run(fellAsleep);
}

std::vector<std::string> Violations(const Scenario& scenario, const std::string& composerLibrary) {
  Result all = Run(scenario, composerLibrary);
  if (!all.violations.empty() || scenario.sources.size() < 2) {
    return all.violations;
  }
  const std::size_t one = scenario.seed % scenario.sources.size();
  if (Run(scenario, composerLibrary, one).digests[one] != all.digests[one]) {
    return {"channel " + std::to_string(one) + " is another one when it is alone"};
  }
  return {};
}

Scenario Shrink(Scenario scenario, const std::string& composerLibrary) {
  // The texts of the violations, without numbers.
  const auto words = [](const std::vector<std::string>& violations) {
    std::string kept = violations.empty() ? "" : violations.front();
    std::erase_if(kept,
                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)) || c == '-'; });
    return kept;
  };
  const std::string wanted = words(Violations(scenario, composerLibrary));
  const auto still = [&](const Scenario& smaller) {
    return words(Violations(smaller, composerLibrary)) == wanted;
  };
  const auto attempt = [&](auto change) {
    Scenario smaller = scenario;
    change(smaller);
    if (still(smaller)) {
      scenario = std::move(smaller);
      return true;
    }
    return false;
  };
  for (Time length = scenario.length / 2; length > 20 * kSecond; length /= 2) {
    while (scenario.length > length && attempt([&](Scenario& s) { s.length -= length; })) {
    }
  }
  for (std::size_t i = 0; i < scenario.sources.size() && scenario.sources.size() > 1;) {
    if (!attempt([&](Scenario& s) { s.sources.erase(s.sources.begin() + std::ptrdiff_t(i)); })) {
      ++i;
    }
  }
  for (std::size_t i = 0; i < scenario.outputs.size(); ++i) {
    attempt([&](Scenario& s) { s.outputs[i].stalls.clear(); });
    attempt([&](Scenario& s) { s.outputs[i].encoderDelay = 0; });
  }
  for (std::size_t i = 0; i < scenario.sources.size(); ++i) {
    for (std::size_t f = 0; f < scenario.sources[i].faults.size();) {
      if (!attempt([&](Scenario& s) {
            s.sources[i].faults.erase(s.sources[i].faults.begin() + std::ptrdiff_t(f));
          })) {
        ++f;
      }
    }
    attempt([&](Scenario& s) { s.sources[i].jitter = 0; });
    attempt([&](Scenario& s) { s.sources[i].burst = 0; });
    attempt([&](Scenario& s) { s.sources[i].audioSkew = 0; });
    attempt([&](Scenario& s) { s.sources[i].drift = 0; });
    attempt([&](Scenario& s) { s.sources[i].divergence = 0; });
    attempt([&](Scenario& s) { s.sources[i].reorder = 0; });
    attempt([&](Scenario& s) { s.sources[i].audio = false; });
    attempt([&](Scenario& s) { s.sources[i].frameRate = {25, 1}; });
    attempt([&](Scenario& s) { s.sources[i].firstTimestamp = 0; });
  }
  attempt([&](Scenario& s) { s.canvasRate = {25, 1}; });
  attempt([&](Scenario& s) {
    for (SourceModel& source : s.sources) {
      for (Fault& fault : source.faults) {
        fault.at -= s.begin;
      }
    }
    for (OutputModel& output : s.outputs) {
      for (Fault& stall : output.stalls) {
        stall.at -= s.begin;
      }
    }
    s.begin = 0;
  });
  return scenario;
}

}  // namespace simulation
