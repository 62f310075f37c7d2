#include "host/cli/wall_metrics.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/config/url.h"
#include "platform/os/process.h"
#include "util/text_codecs.h"

namespace host::cli {

namespace {

using control::MetricsText;
using Entry = ChannelBoard::Entry;
using OutputStatus = OutputSet::Status;

constexpr std::array kStates{ChannelState::kOpening, ChannelState::kLive, ChannelState::kHeld,
                             ChannelState::kLost};
constexpr double kTicks = 1e7;  // of the system's statistics, in a second

double Seconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

void AddProcess(MetricsText& text) {
  const os::SystemStatistics used = os::ReadSystemStatistics();
  text.Counter("process_cpu_seconds_total", "Processor time of the program, in seconds.");
  text.Add(static_cast<double>(used.processKernelTime + used.processUserTime) / kTicks);
  text.Gauge("process_resident_memory_bytes", "Physical memory of the program, in bytes.");
  text.Add(used.workingSet);
  text.Gauge("process_open_fds", "Open file descriptors of the program.");
  text.Add(std::uint64_t{used.handleCount});
  text.Gauge("tavrel_build_info", "1; the label says which version runs.");
  text.Add(std::uint64_t{1}, {{"version", TAVREL_VERSION}});
}

void AddFrames(const WallFigures& wall, MetricsText& text) {
  text.Counter("tavrel_frames_total", "Frames that were composed.");
  text.Add(wall.counters.composed);
  text.Counter("tavrel_frames_late_total", "Frames that were skipped because their time was over.");
  text.Add(wall.counters.late);
  text.Counter("tavrel_frames_without_buffer_total",
               "Frames that were skipped because every buffer was in use.");
  text.Add(wall.counters.noFreeBuffer);
  text.Histogram("tavrel_compose_duration_seconds", "How long a frame takes to be composed.",
                 FrameWatch::kBounds, wall.composing.buckets, Seconds(wall.composing.total));
}

// A family with a sample for each channel that has a value.
template <typename Value>
void AddOfChannels(const WallFigures& wall, MetricsText& text, Value value) {
  for (const Entry& channel : wall.channels) {
    if (channel.isAssigned) {
      if (const auto one = value(channel)) {
        text.Add(*one, {{"channel", channel.name}});
      }
    }
  }
}

// The same, for values of the source that is read.
template <typename Value>
void AddOfSources(const WallFigures& wall, MetricsText& text, Value value) {
  AddOfChannels(wall, text, [&](const Entry& channel) {
    return channel.timing ? std::optional(value(*channel.timing)) : std::nullopt;
  });
}

void AddStates(const WallFigures& wall, MetricsText& text) {
  text.Gauge("tavrel_channel_state", "1 for the state that the channel is in, 0 for the others.");
  for (const Entry& channel : wall.channels) {
    for (const ChannelState state : kStates) {
      if (channel.isAssigned) {
        text.Add(std::uint64_t{channel.status.state == state},
                 {{"channel", channel.name}, {"state", NameOf(state)}});
      }
    }
  }
  text.Gauge("tavrel_channel_decode_step",
             "How much of its video is left out: 0 nothing, 1 and 2 deblocking, 3 frames that no "
             "other refers to, 4 all but keyframes.");
  AddOfChannels(wall, text, [](const Entry& channel) {
    return std::optional(static_cast<std::uint64_t>(channel.decoding));
  });
  text.Gauge("tavrel_channel_alarm_active", "1 while the alarm is raised.");
  for (const Entry& channel : wall.channels) {
    for (const AlarmKind kind : kAllAlarms) {
      if (channel.isAssigned) {
        text.Add(std::uint64_t{channel.alarms[static_cast<std::size_t>(kind)]},
                 {{"channel", channel.name}, {"alarm", NameOf(kind)}});
      }
    }
  }
  text.Counter("tavrel_channel_alarms_total", "How often the alarm was raised.");
  for (const Entry& channel : wall.channels) {
    for (const AlarmKind kind : kAllAlarms) {
      if (channel.isAssigned) {
        text.Add(channel.alarmsRaised[static_cast<std::size_t>(kind)],
                 {{"channel", channel.name}, {"alarm", NameOf(kind)}});
      }
    }
  }
}

void AddSources(const WallFigures& wall, MetricsText& text) {
  text.Counter("tavrel_channel_reopenings_total",
               "How often the source was opened after the first time.");
  AddOfChannels(wall, text, [](const Entry& channel) {
    return std::optional(channel.openings - std::min<std::uint64_t>(channel.openings, 1));
  });
  text.Counter("tavrel_channel_failures_total",
               "How often opening the source or reading it has failed.");
  AddOfChannels(wall, text, [](const Entry& channel) { return std::optional(channel.failures); });
  using Timing = SourceTiming;
  text.Gauge("tavrel_channel_jitter_seconds",
             "How far apart the earliest and the latest arrivals of ten seconds lie.");
  AddOfSources(wall, text, [](const Timing& timing) { return SecondsOf(timing.jitter); });
  text.Gauge("tavrel_channel_lead_seconds", "How long before their time the earliest come.");
  AddOfSources(wall, text, [](const Timing& timing) { return SecondsOf(timing.lead); });
  text.Counter("tavrel_channel_read_bytes_total", "Bytes that were read of the source.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.counts.bytes; });
  text.Counter("tavrel_channel_timestamp_jumps_total", "How often the timestamps have jumped.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.timestampJumps; });
  text.Counter("tavrel_channel_packets_lost_total", "RTP packets that never came.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.counts.packetsLost; });
  text.Counter("tavrel_channel_packets_damaged_total",
               "Packets of video and audio of which parts are missing.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.counts.packetsDamaged; });
  text.Counter("tavrel_channel_frames_lost_total", "Frames that could not be converted.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.framesLost; });
  text.Counter("tavrel_channel_audio_frames_lost_total",
               "Frames of audio that could not be encoded.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.audioLost; });
  text.Counter("tavrel_channel_queue_overflows_total",
               "Frames and packets that found the channel's queue full.");
  AddOfSources(wall, text, [](const Timing& timing) { return timing.overflowed; });
}

// The kind of the output, without its address.
std::string KindOf(const OutputStatus& output) {
  const std::size_t colon = output.name.find("://");
  return colon != std::string::npos      ? output.name.substr(0, colon)
         : output.name == "-"            ? "pipe"
         : config::IsScreen(output.name) ? "screen"
                                         : "file";
}

void AddOutputs(const WallFigures& wall, MetricsText& text) {
  const auto add = [&](auto value) {
    for (std::size_t i = 0; i < wall.outputs.size(); ++i) {
      text.Add(value(wall.outputs[i]), {{"output", std::to_string(i + 1)}});
    }
  };
  text.Gauge("tavrel_output_info", "1; the label says what kind of output it is.");
  for (std::size_t i = 0; i < wall.outputs.size(); ++i) {
    text.Add(std::uint64_t{1},
             {{"output", std::to_string(i + 1)}, {"kind", KindOf(wall.outputs[i])}});
  }
  text.Gauge("tavrel_output_up", "1 while the output works.");
  add([](const OutputStatus& one) { return std::uint64_t{!one.failed && one.failure.empty()}; });
  text.Counter("tavrel_output_openings_total", "How often the output was opened.");
  add([](const OutputStatus& one) { return one.openings; });
  text.Counter("tavrel_output_frames_total", "Frames that were written.");
  add([](const OutputStatus& one) { return one.video.written; });
  text.Counter("tavrel_output_frames_dropped_total",
               "Frames that the output or its encoder were too slow for, or had no place for.");
  add([](const OutputStatus& one) { return one.video.dropped + one.video.leftOut; });
  const auto sum = [](const OutputStatus& one, std::uint64_t OutputSet::TrackStatus::*member) {
    std::uint64_t packets = 0;
    for (const OutputSet::TrackStatus& track : one.audio) {
      packets += track.*member;
    }
    return packets;
  };
  using Track = OutputSet::TrackStatus;
  text.Counter("tavrel_output_audio_packets_total", "Audio packets of all channels, written.");
  add([&](const OutputStatus& one) { return sum(one, &Track::written); });
  text.Counter("tavrel_output_audio_packets_dropped_total",
               "Audio packets that the output was too slow for, or had no place for.");
  add([&](const OutputStatus& one) {
    return sum(one, &Track::dropped) + sum(one, &Track::leftOut);
  });
  text.Counter("tavrel_output_overflows_total", "How often the output's queue was full.");
  add([](const OutputStatus& one) { return one.overflows; });
  text.Gauge("tavrel_output_queue_bytes", "Bytes of packets that wait for the output.");
  add([](const OutputStatus& one) { return std::uint64_t{one.queuedBytes}; });
  text.Gauge("tavrel_output_encoder_queue_frames", "Frames that wait for the output's encoder.");
  add([](const OutputStatus& one) { return std::uint64_t{one.queuedFrames}; });
}

// Screens come last, with shown frames as written ones.
std::vector<OutputStatus> AllOutputs(WallSession& session) {
  std::vector<OutputStatus> outputs = session.outputs().status();
  for (const ScreenOutput::Status& screen : session.screens()) {
    OutputStatus output;
    output.name = screen.name;
    output.failure = screen.failure;
    if (output.failure.empty() && screen.state != ScreenOutput::State::kOpen) {
      output.failure = "its window is being opened";
    }
    output.openings = screen.openings;
    output.video.written = screen.shown;
    output.video.dropped = screen.skipped;
    outputs.push_back(std::move(output));
  }
  return outputs;
}

}  // namespace

void WriteMetrics(const WallFigures& wall, MetricsText& text) {
  AddProcess(text);
  AddFrames(wall, text);
  AddStates(wall, text);
  AddSources(wall, text);
  AddOutputs(wall, text);
}

void WriteMetrics(const Preview::Status& preview, std::size_t listeners, MetricsText& text) {
  text.Gauge("tavrel_preview_viewers", "Clients that watch the preview.");
  text.Add(std::uint64_t{preview.viewers});
  text.Gauge("tavrel_preview_listeners", "Clients that listen to a channel.");
  text.Add(std::uint64_t{listeners});
  text.Counter("tavrel_preview_frames_total", "Frames that were encoded for the preview.");
  text.Add(preview.frames);
}

std::string WhyNoOutput(const std::vector<OutputSet::Status>& outputs) {
  const bool works = std::any_of(outputs.begin(), outputs.end(), [](const OutputStatus& one) {
    return !one.failed && one.failure.empty();
  });
  return works || outputs.empty() ? "" : "no output works";
}

WallWatch::Running::Running(WallWatch& watch, WallSession& session) : watch_(watch) {
  const os::MutexLock guard(watch_.lock_);
  watch_.session_ = &session;
  watch_.startedAt_ = Clock::now();
}

WallWatch::Running::~Running() {
  const os::MutexLock guard(watch_.lock_);
  watch_.session_ = nullptr;
}

control::Monitoring WallWatch::Monitoring() const {
  return {[this](MetricsText& text) { WriteMetrics(Figures(), text); },
          [this] { return WhyNotAlive(); }, [this] { return WhyNotReady(); }};
}

nlohmann::ordered_json WallWatch::Live() const {
  const std::vector<ChannelBoard::Entry> channels = board_.entries();
  nlohmann::ordered_json live;
  for (const ChannelBoard::Entry& channel : channels) {
    if (channel.isAssigned) {
      live["channels"][channel.name] = ToJson(channel);
    }
  }
  nlohmann::ordered_json& outputs = live["outputs"] = nlohmann::ordered_json::array();
  const os::MutexLock guard(lock_);
  if (session_ != nullptr) {
    for (const OutputStatus& output : session_->outputs().status()) {
      outputs.push_back(ToJson(output, channels));
    }
    for (const ScreenOutput::Status& screen : session_->screens()) {
      outputs.push_back(ToJson(screen));
    }
  }
  return live;
}

WallFigures WallWatch::Figures() const {
  WallFigures figures;
  figures.channels = board_.entries();
  const os::MutexLock guard(lock_);
  if (session_ != nullptr) {
    figures.counters = session_->counters();
    figures.composing = session_->composing();
    figures.outputs = AllOutputs(*session_);
  }
  return figures;
}

std::string WallWatch::WhyNotAlive() const {
  const os::MutexLock guard(lock_);
  if (session_ == nullptr) {
    return "";  // it starts or ends; other limits apply to that
  }
  const Clock::time_point latest = std::max(startedAt_, session_->composedAt());
  const double silent = Seconds(Clock::now() - latest);
  return silent <= Seconds(kHeartbeatLimit)
             ? ""
             : qorp::StringFormat("no frame was composed for %.1f s", silent);
}

std::string WallWatch::WhyNotReady() const {
  if (std::string dead = WhyNotAlive(); !dead.empty()) {
    return dead;
  }
  const os::MutexLock guard(lock_);
  if (session_ == nullptr || session_->counters().composed == 0) {
    return "no frame has been composed yet";
  }
  return WhyNoOutput(AllOutputs(*session_));
}

}  // namespace host::cli
