#include "host/cli/wall_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/cli/channel_board.h"
#include "host/cli/json_lines.h"
#include "host/cli/message_log.h"
#include "host/cli/wall_status.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "host/output/output_set.h"
#include "host/output/snapshot.h"
#include "host/session/wall_outputs.h"
#include "host/session/wall_session.h"
#include "platform/os/stop_signals.h"

namespace host::cli {
namespace {

using std::chrono::milliseconds;

// The frame that becomes the snapshot: the last one, or the first one at or after a moment. Taken
// on the composition thread, written by the application's.
class SnapshotFrame {
 public:
  explicit SnapshotFrame(std::optional<double> at) {
    if (at.has_value()) {
      at_ = static_cast<Time>(std::llround(*at * kSecond));
    }
  }

  void Take(const ComPtr<IMediaSample>& frame, Time start) {
    ComPtr<IMediaSample> former;  // released without the lock
    const std::lock_guard guard(lock_);
    if (!at_.has_value() || !frame_ || taken_ < *at_) {
      former = frame_;
      frame_ = frame;
      taken_ = start;
    }
  }

  // Throws when the file cannot be written; false when there never was a frame.
  bool Write(const std::filesystem::path& file, const wall::Canvas& canvas) {
    const std::lock_guard guard(lock_);
    BYTE* pixels = nullptr;
    if (!frame_ || FAILED(frame_->GetPointer(&pixels))) {
      return false;
    }
    WriteSnapshot(file, {pixels, static_cast<std::size_t>(frame_->GetActualDataLength())},
                  canvas.width, canvas.height,
                  PixelAspect(canvas.width, canvas.height, canvas.aspect));
    return true;
  }

 private:
  std::optional<Time> at_;
  std::mutex lock_;
  ComPtr<IMediaSample> frame_;  // guarded by lock_
  Time taken_ = 0;              // guarded by lock_
};

std::vector<wall::Output> OutputsOf(const WallCommand& command) {
  if (command.record.outputs.empty()) {
    return command.wall.outputs;
  }
  std::vector<wall::Output> outputs;
  for (const std::string& url : command.record.outputs) {
    outputs.emplace_back();
    outputs.back().url = url;
  }
  return outputs;
}

std::string Prefixed(const char* prefix, const std::string& text) {
  return text.empty() ? text : prefix + text;
}

// What becomes of the outputs, as lines on the error stream. A failure is told when its reason
// changes, not on every attempt. The outputs' threads; one lock.
class OutputMessages final : public OutputObserver {
 public:
  explicit OutputMessages(MessageLog& messages) : messages_(messages) {}

  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<milliseconds> retryIn) override {
    const std::string text = reason + (retryIn.has_value() ? "; it is tried again" : "");
    {
      const std::lock_guard guard(lock_);
      if (std::exchange(said_[output], text) == text) {
        return;
      }
    }
    messages_.Say(qorp::log::kError, "output " + output + ": " + text);
  }
  void OutputOpened(const std::string& output, const std::string& target,
                    Opening opening) override {
    {
      const std::lock_guard guard(lock_);
      said_.erase(output);
    }
    const std::string file = target == output ? "" : target;
    switch (opening) {
      case Opening::kFirst:
        messages_.Say(qorp::log::kInfo, "output " + output + ": open" + Prefixed(", ", file));
        break;
      case Opening::kBeside:
        messages_.Say(qorp::log::kError,
                      "output " + output + ": that file exists and is kept; written is " + target);
        break;
      case Opening::kAgain:
        messages_.Say(qorp::log::kError,
                      "output " + output + ": open again" + Prefixed("; written is ", file));
        break;
      case Opening::kNext:
        messages_.Say(qorp::log::kInfo, "output " + output + ": continues in " + target);
        break;
    }
  }
  void OutputSaid(const std::string& output, const std::string& what) override {
    messages_.Say(qorp::log::kWarning, "output " + output + ": " + what);
  }

 private:
  MessageLog& messages_;
  std::mutex lock_;
  std::map<std::string, std::string> said_;  // guarded by lock_
};

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f s", seconds);
  return text;
}

// The wall at work, from its start to its end.
class WallCommandRun {
 public:
  WallCommandRun(const WallCommand& command, Streams& streams)
      : command_(command),
        streams_(streams),
        messages_(streams, FirstOf(command.graph.log, command.wall.log)),
        lines_(streams.out, command.live && (command.json || command.events)),
        noLines_(streams.out, false),
        board_(command.wall.channels, messages_, command.events ? lines_ : noLines_),
        outputMessages_(messages_),
        snapshot_(command.record.snapshotAt) {}

  ExitCode Run() {
    const OutputSet::Settings outputs =
        OutputsOfWall(command_.wall, OutputsOf(command_), command_.live);
    outputs_.emplace(outputs, &outputMessages_, &messages_.logger());
    for (const OutputPass::Track& track : outputs.tracks) {
      audioTracks_.push_back(track.audio);
    }
    if (outputs_->allFailed()) {
      return ExitCode::kCouldNotStart;
    }
    WallSession session(SessionSettings());
    messages_.StartRecords();
    startedAt_ = std::chrono::steady_clock::now();
    command_.live ? RunLive(session) : RunRendering(session);
    counters_ = session.counters();
    outputs_->Finish();
    const ExitCode code = CodeOfOutputs();
    WriteSnapshotFile();
    if (command_.live && counters_.late + counters_.starved > 0) {
      messages_.Say(qorp::log::kWarning, std::to_string(counters_.late + counters_.starved) +
                                             " frames were skipped because they came too late");
    }
    messages_.WipeProgress();
    messages_.Flush();
    lines_.Finish();
    command_.json ? PrintJson() : PrintSummary();
    return code;
  }

 private:
  WallSession::Settings SessionSettings() {
    WallSession::Settings settings;
    settings.wall = command_.wall;
    settings.composerLibrary =
        command_.graph.library.empty() ? FindComposerLibrary() : command_.graph.library.string();
    settings.logger = &messages_.logger();
    settings.observer = &board_;
    settings.live = command_.live;
    settings.takeFrame = [this](const ComPtr<IMediaSample>& frame, Time start) {
      outputs_->Take(frame, start);
      if (!command_.record.snapshot.empty()) {
        snapshot_.Take(frame, start);
      }
    };
    if (!outputs_->empty()) {
      settings.audioTracks = audioTracks_;
      settings.takePacket = [this](std::size_t channel, const ffmpeg::Packet& packet, Time shift) {
        outputs_->TakeSound(channel, *packet, shift);
      };
    }
    return settings;
  }

  void RunLive(WallSession& session) {
    ServiceStatus service(os::ServiceNotifier::FromEnvironment());
    session.Start();
    double lastStatus = 0;
    while (!signals_.Requested() && !outputs_->allFailed()) {
      const Time now = session.now();
      const Time end = command_.record.seconds.has_value() ? Length() : now + kSecond;
      if (now >= end) {
        break;
      }
      signals_.WaitFor(milliseconds(std::clamp<Time>((end - now) / kMillisecond + 1, 1, 200)));
      service.Report(session.counters().composed);
      ShowProgress(session);
      if (Elapsed() - lastStatus >= 1) {
        lastStatus = Elapsed();
        const WallStatus status = Status(session);
        service.Say(status.Line(true));
        if (command_.json) {
          lines_.Write(status.JsonLine());
        }
      }
    }
    session.Stop();
  }

  void RunRendering(WallSession& session) {
    WallSession::RenderControl control;
    if (command_.record.seconds.has_value()) {
      control.length = Length();
    }
    control.waitForRoom = [this] {
      while (!signals_.Requested() && !outputs_->WaitForRoom(milliseconds(100))) {
      }
      return !outputs_->allFailed();
    };
    control.stop = [&] {
      ShowProgress(session);
      return signals_.Requested();
    };
    session.Render(control);
  }

  Time Length() const {
    return static_cast<Time>(std::llround(*command_.record.seconds * kSecond));
  }

  double Elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt_).count();
  }
  double ComposedSeconds() const {
    return static_cast<double>(counters_.composed) / command_.wall.canvas.frameRate.value();
  }

  void ShowProgress(WallSession& session) {
    if (!streams_.progress || Elapsed() - lastProgress_ < 0.2) {
      return;
    }
    lastProgress_ = Elapsed();
    messages_.ShowProgress(Status(session).Line(command_.live));
  }

  WallStatus Status(WallSession& session) {
    counters_ = session.counters();
    WallStatus status;
    status.seconds = ComposedSeconds();
    status.clock = session.now();
    status.counters = counters_;
    for (const OutputSet::Status& output : outputs_->status()) {
      status.dropped = std::max(status.dropped, output.dropped);
    }
    // Progress and status ask in turn: both shall see what is recent.
    const FrameWatch::Timing timing = session.TakeTiming();
    timing_ = timing.frames > 0 ? timing : timing_;
    status.timing = timing_;
    status.channels = board_.entries();
    return status;
  }

  // A rendered output that is not whole is of no use; a live wall did its work when it reached one.
  ExitCode CodeOfOutputs() const {
    const std::vector<OutputSet::Status> all = outputs_->status();
    const auto lost = std::count_if(all.begin(), all.end(), [&](const OutputSet::Status& output) {
      return command_.live ? output.written == 0 && !output.failure.empty() : output.failed;
    });
    const bool bad = command_.live ? lost == std::ssize(all) && lost > 0 : lost > 0;
    return bad ? ExitCode::kCouldNotStart : ExitCode::kDone;
  }

  void WriteSnapshotFile() {
    if (!command_.record.snapshot.empty() &&
        !snapshot_.Write(command_.record.snapshot, command_.wall.canvas)) {
      messages_.Say(qorp::log::kError, "no frame was composed: " +
                                           command_.record.snapshot.string() + " was not written");
    }
  }

  void PrintSummary() {
    for (const OutputSet::Status& output : outputs_->status()) {
      if (!output.failed) {
        streams_.out << output.name << ": " << output.written << " frames, "
                     << Seconds(ComposedSeconds()) << "\n";
      }
    }
    if (!command_.record.snapshot.empty()) {
      streams_.out << command_.record.snapshot.string() << "\n";
    }
  }

  void PrintJson() {
    nlohmann::ordered_json report;
    if (command_.live) {
      report["event"] = "end";
      report["time"] = TimestampUtc();
    }
    report["frames"] = counters_.composed;
    report["seconds"] = ComposedSeconds();
    report["elapsed"] = std::round(Elapsed() * 1000) / 1000;
    report["late"] = counters_.late;
    report["starved"] = counters_.starved;
    report["outputs"] = nlohmann::ordered_json::array();
    for (const OutputSet::Status& status : outputs_->status()) {
      nlohmann::ordered_json output = {{"url", status.name},
                                       {"frames", status.written},
                                       {"dropped", status.dropped},
                                       {"overflows", status.overflows}};
      if (!status.failure.empty()) {
        output["failure"] = status.failure;
      }
      report["outputs"].push_back(output);
    }
    report["channels"] = nlohmann::ordered_json::array();
    for (const ChannelBoard::Entry& entry : board_.entries()) {
      report["channels"].push_back(ToJson(entry));
    }
    if (command_.live) {
      streams_.out << OneLine(report) << "\n";
      return;
    }
    streams_.out << report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                 << "\n";
  }

  const WallCommand& command_;
  Streams& streams_;
  os::StopSignals signals_;
  MessageLog messages_;
  JsonLines lines_;
  JsonLines noLines_;
  ChannelBoard board_;
  OutputMessages outputMessages_;
  std::optional<OutputSet> outputs_;
  SnapshotFrame snapshot_;
  std::vector<std::shared_ptr<AudioTrack>> audioTracks_;  // null: the channel's sound is off
  std::chrono::steady_clock::time_point startedAt_;
  double lastProgress_ = -1;
  WallSession::Counters counters_;
  FrameWatch::Timing timing_;
};

}  // namespace

ExitCode RunWallCommand(const WallCommand& command, Streams& streams) {
  if (!command.live && OutputsOf(command).empty() && command.record.snapshot.empty()) {
    streams.err << "nothing to write: name a file with --output or --snapshot\n";
    return ExitCode::kUsage;
  }
  return WallCommandRun(command, streams).Run();
}

}  // namespace host::cli
