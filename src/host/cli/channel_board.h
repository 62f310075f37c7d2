// ChannelBoard: the state of every channel of a running wall.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/channel/channel_observer.h"
#include "host/cli/json_lines.h"
#include "host/config/wall.h"

namespace host::cli {

// Keeps what the channels tell, passes it on to another observer, and writes each change of a
// channel or an alarm as a line of JSON:
//
//   {"event":"channel","time":"2026-11-25T01:02:03.456Z","channel":"A","state":"held",
//    "reason":"no data for 5 s","since":12.04}
//   {"event":"audio","time":"...","channel":"A","state":"stopped","since":12.04}
//   {"event":"alarm","time":"...","channel":"A","alarm":"freeze","raised":true,"since":15.2}
//
// since: seconds of the wall's time. The channels' threads tell, the application's asks; one lock.
class ChannelBoard final : public ChannelObserver {
 public:
  struct Entry {
    std::string name;
    ChannelLife::Status status;
    AudioStatus audio;
    std::array<bool, kAlarmKinds> alarms{};  // by AlarmKind
    std::optional<SourceTiming> timing{};    // of a live source that is being read
    std::optional<Time> length;              // of the source, once it is known
    bool opened = false;
    bool wasLive = false;
    std::string failure;  // why the source is of no use, or was to the end; may be empty

    // Why a channel whose source is not opened again was not shown, or not to its end; empty when
    // it was.
    std::string NotShown() const;
  };

  // next and events outlive the board.
  ChannelBoard(const std::vector<config::Channel>& channels, ChannelObserver& next,
               JsonLines& events);

  void ChannelOpened(const std::string& channel, const MediaInfo& info) override;
  void ChannelEnded(const std::string& channel) override;
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> retryIn) override;
  void ChannelTimed(const std::string& channel, const SourceTiming& timing) override;
  void AudioPathChanged(const std::string& channel, const std::string& what) override;
  void ChannelChanged(const std::string& channel, const ChannelLife::Status& status) override;
  void AudioChanged(const std::string& channel, const AudioStatus& status) override;
  void AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) override;

  // In the order of the wall.
  std::vector<Entry> entries() const;

 private:
  Entry& Of(const std::string& channel) { return entries_[index_.at(channel)]; }

  ChannelObserver& next_;
  JsonLines& events_;
  mutable std::mutex lock_;
  std::vector<Entry> entries_;                // guarded by lock_
  std::map<std::string, std::size_t> index_;  // of the entries, by name
};

// How long a wall of these sources is; none while a source that has not failed has no length.
std::optional<double> LengthOf(const std::vector<ChannelBoard::Entry>& channels);
// A channel in a status report: name, state, reason, since, audio, alarms; jitter and lead of a
// live source in seconds, and what was left out of it.
nlohmann::ordered_json ToJson(const ChannelBoard::Entry& entry);
// "2026-11-25T01:02:03.456Z": now.
std::string TimestampUtc();
// Seconds with milliseconds.
double SecondsOf(Time time);
// One line; what is not UTF-8 in names and reasons is replaced.
std::string OneLine(const nlohmann::ordered_json& json);

}  // namespace host::cli
