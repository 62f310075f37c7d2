// What a running wall tells programs and persons: its channels, its outputs, its figures.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/channel/channel_observer.h"
#include "host/cli/json_lines.h"
#include "host/cli/message_log.h"
#include "host/config/wall.h"
#include "host/control/event_feed.h"
#include "host/output/output_set.h"
#include "host/session/wall_session.h"
#include "platform/os/mutex.h"
#include "platform/os/service.h"

namespace host::cli {

// Keeps the state of each channel, reports its changes as messages, and writes those of channels
// and alarms as lines of JSON:
//
//   {"event":"channel","time":"2026-11-25T01:02:03.456Z","channel":"A","state":"held",
//    "reason":"no data for 5 s","since":12.04}
//   {"event":"audio","time":"...","channel":"A","state":"stopped","since":12.04}
//   {"event":"alarm","time":"...","channel":"A","alarm":"freeze","raised":true,"since":15.2}
//
// since: seconds of the wall's time. A failure is a message when its reason changes, not on every
// attempt. Called by the channels' threads, read by the application's; one lock.
class ChannelBoard final : public ChannelObserver {
 public:
  struct Entry {
    std::string name;
    ChannelLife::Status status;
    AudioStatus audio;
    std::array<bool, kAlarmKinds> alarms{};  // by AlarmKind
    DecodeStep decoding = DecodeStep::kFull;
    std::string decodingReason;                  // why it is not decoded fully
    std::optional<SourceTiming> timing{};        // of a live source that is being read
    std::optional<RenditionStatus> rendition{};  // of a source that has several
    std::optional<Time> length;                  // of the source, once it is known
    std::uint64_t openings = 0;
    std::uint64_t failures = 0;                             // of opening and of reading
    std::array<std::uint64_t, kAlarmKinds> alarmsRaised{};  // by AlarmKind: how often
    bool wasLive = false;
    std::string failure;     // why the source is of no use, or was to the end; may be empty
    bool isAssigned = true;  // false: a spare slot

    // Why a channel whose source is not opened again was not shown, or not to its end; empty when
    // it was.
    std::string NotShown() const;
  };

  // An entry for each slot of the wall. messages and events outlive the board.
  ChannelBoard(const config::Wall& wall, MessageLog& messages, JsonLines& events);

  // The channel in a slot from now on; empty: the slot is spare. What a former channel still
  // reports is nobody's any more. Application's thread.
  void Assign(std::size_t slot, const std::string& name);

  void ChannelOpened(const std::string& channel, const MediaInfo& info) override;
  void ChannelEnded(const std::string& channel) override;
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> retryIn) override;
  void ChannelTimed(const std::string& channel, const SourceTiming& timing) override;
  void DecodingChanged(const std::string& channel, DecodeStep step,
                       const std::string& reason) override;
  void RenditionChanged(const std::string& channel, const RenditionStatus& status) override;
  void AudioPathChanged(const std::string& channel, const std::string& what) override;
  void ChannelChanged(const std::string& channel, const ChannelLife::Status& status) override;
  void AudioChanged(const std::string& channel, const AudioStatus& status) override;
  void AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) override;

  // Everything that is an event goes there as well; it outlives the board. Before any channel runs.
  void PublishTo(control::EventFeed& feed) { feed_ = &feed; }

  // An event of something else of the wall. Any thread.
  void Publish(const nlohmann::ordered_json& event);

  // In the order of the slots, spare ones included.
  std::vector<Entry> entries() const;

 private:
  // Of a channel that is not there, or not any more, one that nobody reads.
  Entry& Of(const std::string& channel) REQUIRES(lock_) {
    const auto slot = index_.find(channel);
    return slot == index_.end() ? former_ : entries_[slot->second];
  }
  bool hasReaders() const { return events_.enabled() || feed_ != nullptr; }
  void Say(std::int32_t level, const std::string& channel, const std::string& what);

  MessageLog& messages_;
  JsonLines& events_;
  control::EventFeed* feed_ = nullptr;
  mutable os::Mutex lock_;
  std::map<std::string, std::size_t> index_ GUARDED_BY(lock_);  // of the entries, by name
  Entry former_ GUARDED_BY(lock_);
  std::vector<Entry> entries_ GUARDED_BY(lock_);
  // Why a channel fails, by its name, while it does.
  std::map<std::string, std::string> failures_ GUARDED_BY(lock_);
};

// How long a wall of these sources is; none while a source that has not failed has no length.
std::optional<double> LengthOf(const std::vector<ChannelBoard::Entry>& channels);
// A channel in a status report: name, state, reason, since, audio, alarms, decoding, rendition;
// jitter and lead of a live source in seconds, what was left out of it and how much was read.
nlohmann::ordered_json ToJson(const ChannelBoard::Entry& entry);
// "2026-11-25T01:02:03.456Z": now.
std::string TimestampUtc();
// Seconds with milliseconds.
double SecondsOf(Time time);
// One line; what is not UTF-8 in names and reasons is replaced.
std::string OneLine(const nlohmann::ordered_json& json);

struct WallStatus {
  double seconds = 0;  // of composed frames
  Time clock = 0;      // the wall's time
  WallSession::Counters counters;
  std::uint64_t dropped = 0;  // frames that the slowest output has dropped
  FrameWatch::Timing timing;  // of composing, since the status before
  std::vector<ChannelBoard::Entry> channels;
  std::vector<OutputSet::Status> outputs;
  std::vector<ScreenOutput::Status> screens;
  double elapsed = 0;           // seconds that a rendering has taken
  std::optional<double> total;  // seconds that it makes, where that is known

  // "12.0 s, 300 frames, channels: 7 live; held: Clip; late 0, dropped 0; read 9.1 MB; composed in
  // 3.1 ms"
  std::string LiveLine() const;
  // "34 %, 12.0 of 35.0 s, 3.1 times as fast, 0:07 to go; channels: 8 live; lost: Clip"
  std::string RenderingLine() const;
  // {"event":"status","time":...,"frames":...,"channels":[...]}
  std::string JsonLine() const;

 private:
  std::string ChannelsText() const;
  std::string ReadText() const;
};

// An output in a report.
nlohmann::ordered_json ToJson(const OutputSet::Status& output,
                              const std::vector<ChannelBoard::Entry>& channels);
nlohmann::ordered_json ToJson(const ScreenOutput::Status& screen);

// Tells the service manager: ready once the first frame is composed, alive as long as frames are,
// and the status line now and then. Application's thread.
class ServiceStatus {
 public:
  explicit ServiceStatus(os::ServiceNotifier notifier) : notifier_(std::move(notifier)) {}
  ~ServiceStatus() { notifier_.Stopping(); }
  ServiceStatus(const ServiceStatus&) = delete;
  ServiceStatus& operator=(const ServiceStatus&) = delete;

  // composed: frames since the start. More often than half the watchdog's period.
  void Report(std::uint64_t composed);
  void Say(const std::string& line) { notifier_.Status(line); }

 private:
  const os::ServiceNotifier notifier_;
  std::uint64_t reported_ = 0;
  bool ready_ = false;
};

}  // namespace host::cli
