// Keeps the reports of channels and outputs as lines.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/channel_observer.h"
#include "host/output/output.h"
#include "tests/support/wait_until.h"

namespace host {

using Lines = std::vector<std::string>;

// Lines by subject. Any thread adds and reads.
class LineRecorder {
 public:
  Lines Of(const std::string& subject) const {
    const std::lock_guard guard(lock_);
    const auto found = lines_.find(subject);
    return found == lines_.end() ? Lines() : found->second;
  }

 protected:
  void Add(const std::string& subject, std::string line) {
    const std::lock_guard guard(lock_);
    lines_[subject].push_back(std::move(line));
  }

 private:
  mutable std::mutex lock_;
  std::map<std::string, Lines> lines_;  // guarded by lock_
};

class ChannelLog final : public LineRecorder, public ChannelObserver {
 public:
  void ChannelOpened(const std::string& channel, const MediaInfo& info) override {
    Add("opened " + channel, info.format);
  }
  void ChannelEnded(const std::string& channel) override { Add("ended " + channel, ""); }
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> /*retryIn*/) override {
    Add("failed " + channel, reason);
  }
  void ChannelChanged(const std::string& channel, const ChannelLife::Status& status) override {
    Add("state " + channel, WithReason(NameOf(status.state), status.reason));
  }
  void AudioChanged(const std::string& channel, const AudioStatus& status) override {
    Add("audio " + channel, WithReason(NameOf(status.state), status.reason));
  }
  void AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) override {
    Add("alarm " + channel, std::string(NameOf(change.kind)) + (change.raised ? " on" : " off"));
  }
  void RenditionChanged(const std::string& channel, const RenditionStatus& status) override {
    Add("rendition " + channel, std::to_string(status.width));
  }
  void AudioPathChanged(const std::string& channel, const std::string& what) override {
    Add("audio path " + channel, what);
  }

  // In order: "live", "held: reason"; "freeze on"; "absent: it has no audio".
  Lines States(const std::string& channel) const { return Of("state " + channel); }
  Lines Alarms(const std::string& channel) const { return Of("alarm " + channel); }
  Lines Audio(const std::string& channel) const { return Of("audio " + channel); }
  Lines Renditions(const std::string& channel) const { return Of("rendition " + channel); }
  Lines AudioPaths(const std::string& channel) const { return Of("audio path " + channel); }
  bool Opened(const std::string& channel) const { return !Of("opened " + channel).empty(); }
  bool Ended(const std::string& channel) const { return !Of("ended " + channel).empty(); }
  // The latest; empty without one.
  std::string Failure(const std::string& channel) const {
    const Lines failures = Of("failed " + channel);
    return failures.empty() ? "" : failures.back();
  }

 private:
  static std::string WithReason(const std::string& state, const std::string& reason) {
    return state + (reason.empty() ? "" : ": " + reason);
  }
};

class OutputLog final : public LineRecorder, public OutputObserver {
 public:
  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<std::chrono::milliseconds> /*retryIn*/) override {
    Add("failed", output + ": " + reason);
  }
  void OutputOpened(const std::string& /*output*/, const std::string& target,
                    Opening opening) override {
    Add("opened", (opening == Opening::kAgain ? "again: " : "") + target);
  }
  void OutputSaid(const std::string& output, const std::string& what) override {
    Add("said", output + ": " + what);
  }

  Lines failures() const { return Of("failed"); }  // "output: reason"
  Lines openings() const { return Of("opened"); }  // files and connections; "again: x.mkv"
  Lines said() const { return Of("said"); }
};

}  // namespace host
