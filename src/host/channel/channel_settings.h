// What one channel takes from the wall file and from its wall (ChannelSettings), and what operators
// change of it while its source goes on (ChannelControls).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/channel/decode_policy.h"
#include "host/channel/source/shared_receiver.h"
#include "host/channel/window_schedule.h"
#include "host/config/wall.h"
#include "host/feed/audio_format.h"
#include "host/units.h"
#include "log/i_log_perf.h"

namespace host {

class SharedInputs;

struct ChannelControls {
  // Those of the wall file at first.
  config::AlarmOptions alarm;
  bool hasMeter;
  Time hold;
  config::Decode decode;
  config::Mute mute = config::Mute::kOff;
  // Alarms are neither drawn nor captioned until then.
  std::optional<std::chrono::system_clock::time_point> maskedUntil{};
  // When an alarm was acknowledged: it is not drawn until it is raised again. By AlarmKind.
  std::array<std::optional<std::chrono::system_clock::time_point>, config::kAlarmKinds>
      acknowledged{};

  ChannelControls() : ChannelControls(config::ChannelOptions()) {}
  explicit ChannelControls(const config::ChannelOptions& options)
      : alarm(options.alarm),
        hasMeter(options.audio.meter),
        hold(options.hold),
        decode(options.decode) {}
  bool operator==(const ChannelControls&) const = default;
};

// The settings of the wall file are used as they were read: no part of a channel copies them into
// structs of its own. Immutable once the channel is made. Shared by the channel and its reader,
// which may outlive it.
struct ChannelSettings {
  config::Channel channel;
  config::Canvas canvas;
  std::string label;  // at the start, UTF-8; may be empty
  // Where the channel's window is, and under which number; null: where the wall file puts it.
  std::shared_ptr<const WindowSchedule> windows;
  std::size_t slot = 0;
  // The wall's time, on which live sources are placed. Null: the wall is rendered, and sources
  // start at its time 0.
  std::function<Time()> now;
  std::function<std::string(Time)> timeText;  // the wall's time as an operator reads it
  std::function<bool()> wantsType;            // whether a frame is to carry its media type
  std::function<void()> frameSent;            // called after each frame
  // Start of the background frame whose sending into the composer began last, and of the latest one
  // that is there; the second waits while one is being sent.
  std::function<Time()> latestFrame;
  std::function<Time()> presentFrame;
  // The channel's track in the outputs; null: compressed audio does not leave the channel.
  std::shared_ptr<AudioTrack> audioTrack;
  qorp::log::ILogPerf* logger = nullptr;      // not owned, may be null
  DecodeStep renderStep = DecodeStep::kFull;  // of a rendered wall
  // What asks for less decoding besides the channel's own load; null in a rendered wall, which
  // decodes everything.
  std::shared_ptr<WallPressure> pressure;
  std::shared_ptr<DecodeSeat> decodeSeat;        // null in a rendered wall
  std::shared_ptr<DecodeBatches> decodeBatches;  // null in a live wall
  // Connections and demuxers that the channel shares with others of the wall; null in a rendered
  // wall, whose channels open their own.
  std::shared_ptr<SharedReceivers> receivers;
  std::shared_ptr<SharedInputs> inputs;
  // No threads: the owner fills the queue and calls DeliverUpTo (simulations).
  bool driven = false;

  bool isLive() const { return now != nullptr; }
  // The size that frames have to have at this time of the wall.
  WindowSize SizeAt(Time time) const {
    return windows ? windows->SizeAt(slot, time)
                   : WindowSize{channel.window.width, channel.window.height};
  }
  // How long after its time a frame is shown.
  Time delay() const { return isLive() ? canvas.delay : config::kMaxDelay; }
};

}  // namespace host
