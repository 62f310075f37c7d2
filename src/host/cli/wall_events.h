// The reports of channels and outputs as messages and as events, which are lines of JSON.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/channel/channel_observer.h"
#include "host/cli/message_log.h"
#include "host/config/wall.h"
#include "host/control/event_feed.h"
#include "host/output/output.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"
#include "util/bounded_queue.h"

namespace host::cli {

// Lines for programs, one JSON object in each, written by a thread of its own, so that a slow
// reader delays no other thread: the oldest of the waiting lines are dropped then, and the next
// line that is written says how many. A stream that failed is tried again with each line. Any
// thread adds lines.
class JsonLines {
 public:
  // enabled false: nothing is written and no thread started.
  JsonLines(std::ostream& stream, bool enabled);
  // As Finish.
  ~JsonLines();
  JsonLines(const JsonLines&) = delete;
  JsonLines& operator=(const JsonLines&) = delete;

  bool enabled() const { return thread_ != nullptr; }
  // line: without its end.
  void Write(std::string line);
  // Writes the lines that wait, for a limited time if the stream limits its own waiting; nothing is
  // written afterwards. Application's thread.
  void Finish();

 private:
  void Run();

  std::ostream& stream_;  // the writing thread's
  BoundedQueue<std::string> queue_;
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<bool> finishing_{false};
  std::unique_ptr<os::Thread> thread_;
};

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
    std::string failure;     // why the source cannot be used, or could not to the end; may be empty
    bool isAssigned = true;  // false: a spare slot

    // Why a channel whose source is not opened again was not shown, or not to its end; empty when
    // it was.
    std::string NotShown() const;
  };

  // An entry for each slot of the wall. messages and events outlive the board.
  ChannelBoard(const config::Wall& wall, MessageLog& messages, JsonLines& events);

  // The channel in a slot from now on; empty: the slot is spare. Later reports of a former channel
  // are ignored. Application's thread.
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

  // Publishes all events there as well; feed outlives the board. Called before any channel runs.
  void PublishTo(control::EventFeed& feed) { feed_ = &feed; }

  // An event of another part of the wall. Any thread.
  void Publish(const nlohmann::ordered_json& event);

  // In the order of the slots, spare ones included.
  std::vector<Entry> entries() const;

 private:
  // The entry of the channel; of one that is not, or no longer, there, an entry that nobody reads.
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

// The length of a wall of these sources; none while a source that has not failed has no length.
std::optional<double> LengthOf(const std::vector<ChannelBoard::Entry>& channels);
// A channel in a status report: name, state, reason, since, audio, alarms, decoding, rendition;
// jitter and lead of a live source in seconds, counts of what was left out, bytes that were read.
nlohmann::ordered_json ToJson(const ChannelBoard::Entry& entry);
// "2026-11-25T01:02:03.456Z": now.
std::string TimestampUtc();
// Seconds with milliseconds.
double SecondsOf(Time time);

// Reports a failure when its reason changes, not on every attempt; as a message and as an event:
//
//   {"event":"output","time":"...","output":"screen:0","state":"failed","reason":"...","retries":true}
//   {"event":"output","time":"...","output":"screen:0","state":"open"}
//
// The outputs' threads call; one lock.
class OutputMessages final : public OutputObserver {
 public:
  explicit OutputMessages(MessageLog& messages) : messages_(messages) {}

  // Before any output is there. publish: called by the outputs' threads; returns at once.
  void PublishTo(std::function<void(const nlohmann::ordered_json& event)> publish) {
    publish_ = std::move(publish);
  }

  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<std::chrono::milliseconds> retryIn) override;
  void OutputOpened(const std::string& output, const std::string& target, Opening opening) override;
  void OutputSaid(const std::string& output, const std::string& what) override;

 private:
  MessageLog& messages_;
  std::function<void(const nlohmann::ordered_json& event)> publish_;
  os::Mutex lock_;
  std::map<std::string, std::string> said_ GUARDED_BY(lock_);
};

}  // namespace host::cli
