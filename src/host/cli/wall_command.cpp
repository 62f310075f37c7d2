#include "host/cli/wall_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/cli/control_links.h"
#include "host/cli/message_log.h"
#include "host/cli/wall_events.h"
#include "host/cli/wall_metrics.h"
#include "host/cli/wall_status.h"
#include "host/control/session_executor.h"
#include "host/output/listening.h"
#include "host/output/preview.h"
#include "host/output/snapshot.h"
#include "host/session/wall_session.h"
#include "platform/os/console.h"
#include "platform/os/process.h"
#include "platform/os/service.h"

namespace host::cli {
namespace {

using std::chrono::milliseconds;

// A wall continues when nobody reads its streams: the queue of the lines for programs then drops
// the oldest, and messages wait for a reader once only.
constexpr milliseconds kOutTimeout{250};
constexpr milliseconds kErrTimeout{250};
// The same for the report at the end.
constexpr milliseconds kReportTimeout{1000};

// Before the session applies the state, the board learns which channels will report.
class Executor final : public control::WallExecutor {
 public:
  explicit Executor(ChannelBoard& board) : board_(board) {}

  // Before the first request.
  void Use(WallSession& session) { executor_.emplace(session); }

  std::int64_t Execute(const control::WallState& before, const control::WallState& next) override {
    for (std::size_t slot = 0; slot < next.slots.size(); ++slot) {
      const std::string former = NameIn(before, slot);
      if (const std::string name = NameIn(next, slot); name != former) {
        board_.Assign(slot, name);
      }
    }
    return executor_.value().Execute(before, next);
  }

 private:
  static std::string NameIn(const control::WallState& state, std::size_t slot) {
    return state.slots[slot] ? state.slots[slot]->settings.name : "";
  }

  ChannelBoard& board_;
  std::optional<control::SessionExecutor> executor_;
};

// The running wall, from its start to its end.
class WallCommandRun {
 public:
  WallCommandRun(const WallCommand& command, RunPlan plan, Streams& streams)
      : command_(command),
        record_(command.record),
        streams_(streams),
        plan_(std::move(plan)),
        signals_(command.live && !command.wallFile.empty()),
        messageLog_(
            std::make_unique<MessageLog>(streams, FirstOf(command.graph.log, command.wall.log))),
        messages_(*messageLog_),
        composerLog_(messages_.logger()),
        lines_(streams.out, command.live && (command.json || command.events)),
        noLines_(streams.out, false),
        board_(command.wall, messages_, command.events ? lines_ : noLines_),
        outputMessages_(messages_),
        snapshot_(command.record.snapshotAt) {
    outputMessages_.PublishTo(
        [this](const nlohmann::ordered_json& event) { board_.Publish(event); });
    if (command.live && command.wall.http.listen && command.wall.http.preview.enabled) {
      preview_ = std::make_unique<Preview>(
          Preview::Settings{command.wall.canvas, command.wall.http.preview,
                            [this](const std::string& what) { Warn(what); }});
      listening_ = std::make_unique<Listening>(command.wall.channels.size() +
                                               static_cast<std::size_t>(command.wall.spare));
    }
    if (command.live) {
      links_ = std::make_unique<ControlLinks>(executor_, LinkSettings());
      board_.PublishTo(links_->events());
    }
  }

  ExitCode Run() {
    os::StandardStream::LimitWaiting(streams_.out, kOutTimeout, kOutTimeout);
    os::StandardStream::LimitWaiting(streams_.err, kErrTimeout, milliseconds(0));
    WallSession session(SessionSettings());
    outputs_ = &session.outputs();
    if (outputs_->allFailed()) {
      return ExitCode::kCouldNotStart;
    }
    messages_.StartRecords();
    startedAt_ = std::chrono::steady_clock::now();
    command_.live ? RunLive(session) : RunRendering(session);
    counters_ = session.counters();
    screens_ = session.screens();
    if (const int stuck = session.Finish([this] { return signals_.Requested(); }); stuck > 0) {
      messages_.Say(qorp::log::kWarning,
                    std::to_string(stuck) + " sources did not end in time and were abandoned");
    }
    ExitCode code = CodeOfOutputs();
    WriteSnapshotFile();
    if (command_.strict && ReportNotShown()) {
      code = ExitCode::kCouldNotStart;
    }
    if (command_.live && counters_.late + counters_.noFreeBuffer > 0) {
      messages_.Say(qorp::log::kWarning, std::to_string(counters_.late + counters_.noFreeBuffer) +
                                             " frames were skipped because they came too late");
    }
    messages_.WipeProgress();
    if (!messages_.Flush()) {
      // Its thread is stuck in a file and may use it at any time: it is left to the end of the
      // process.
      static_cast<void>(messageLog_.release());
    }
    lines_.Finish();
    PrintEnd();
    os::FlushWithin(streams_.out, kReportTimeout);
    return code;
  }

 private:
  WallSession::Settings SessionSettings() {
    WallSession::Settings settings;
    settings.wall = command_.wall;
    settings.wall.outputs = plan_.outputs;
    settings.wall.screens = plan_.screens;
    settings.screen.program = os::ProgramPath();
    settings.screen.title =
        command_.wallFile.empty() ? "Tavrel" : command_.wallFile.stem().string();
    settings.screen.takeInput = [this](const std::string& screen, const ScreenInput& input) {
      links_->TakeInput(screen, input);
    };
    settings.composerLibrary =
        command_.graph.library.empty() ? FindComposerLibrary() : command_.graph.library.string();
    settings.logger = &messages_.logger();
    settings.composerLogger = &composerLog_;
    settings.observer = &board_;
    settings.outputObserver = &outputMessages_;
    settings.live = command_.live;
    const bool takesSnapshot = !record_.snapshot.empty();
    if (takesSnapshot || command_.wall.http.listen) {
      settings.takeFrame = [this, takesSnapshot](const ComPtr<IMediaSample>& frame, Time start) {
        if (takesSnapshot) {
          snapshot_.Take(frame, start);
        }
        latestFrame_.Take(frame);
        if (preview_) {
          preview_->Take(frame, start);
        }
      };
    }
    if (listening_) {
      settings.takeAudio = [this](std::size_t slot, const AVPacket& packet,
                                  const std::shared_ptr<AudioTrack>& track) {
        listening_->Take(slot, packet, track);
      };
    }
    return settings;
  }

  ControlLinks::Settings LinkSettings() {
    ControlLinks::Settings settings;
    settings.wall = command_.wall;
    settings.wallFile = command_.wallFile;
    settings.snapshot = [this](const control::http::Snapshots::View& view) {
      const config::Canvas& canvas = command_.wall.canvas;
      return view.isSmall ? latestFrame_.Jpeg(canvas, view.window,
                                              PreviewSize(canvas, command_.wall.http.preview))
                          : latestFrame_.Jpeg(canvas, view.window);
    };
    settings.monitoring = watch_.Monitoring();
    if (preview_) {
      settings.preview = preview_->feed();
      settings.audio = listening_->feeds();
      settings.monitoring.metrics = [this, wall = settings.monitoring.metrics](auto& text) {
        wall(text);
        WriteMetrics(preview_->status(), listening_->listeners(), text);
      };
    }
    settings.say = [this](const std::string& what) { messages_.Say(qorp::log::kInfo, what); };
    settings.complain = [this](const std::string& what) { messages_.Say(qorp::log::kError, what); };
    settings.live = [this] {
      nlohmann::ordered_json live = watch_.Live();
      if (preview_) {
        const Preview::Status status = preview_->status();
        live["preview"] = {{"viewers", status.viewers},
                           {"encoding", status.isEncoding},
                           {"frames", status.frames},
                           {"listeners", listening_->listeners()}};
      }
      return live;
    };
    return settings;
  }

  void Warn(const std::string& what) { messages_.Say(qorp::log::kWarning, what); }

  void RunLive(WallSession& session) {
    ServiceStatus service(os::ServiceNotifier::FromEnvironment());
    executor_.Use(session);
    session.Start();
    const WallWatch::Running running(watch_, session);
    double lastStatus = 0;
    while (!signals_.Requested() && !outputs_->allFailed()) {
      const Time now = session.now();
      const Time end = record_.seconds.has_value() ? Length() : now + kSecond;
      if (now >= end) {
        break;
      }
      if (signals_.TakeReload()) {
        links_->Reload();
      }
      links_->RunFor(
          static_cast<std::uint32_t>(std::clamp<Time>((end - now) / kMillisecond + 1, 1, 200)));
      session.Tidy();
      service.Report(session.counters().composed);
      ShowProgress(session);
      if (Elapsed() - lastStatus >= 1) {
        lastStatus = Elapsed();
        const WallStatus status = Status(session);
        service.Say(status.LiveLine());
        if (command_.json) {
          lines_.Write(status.JsonLine());
        }
      }
    }
    session.Stop();
  }

  void RunRendering(WallSession& session) {
    WallSession::RenderControl control;
    if (record_.seconds.has_value()) {
      control.length = Length();
    }
    control.stop = [&] {
      ShowProgress(session);
      return signals_.Requested();
    };
    control.cancelled = [&] { return signals_.Requested(); };
    session.Render(control);
  }

  Time Length() const { return static_cast<Time>(std::llround(*record_.seconds * kSecond)); }

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
    const WallStatus status = Status(session);
    messages_.ShowProgress(command_.live ? status.LiveLine() : status.RenderingLine());
  }

  WallStatus Status(WallSession& session) {
    counters_ = session.counters();
    WallStatus status;
    status.seconds = ComposedSeconds();
    status.clock = session.now();
    status.counters = counters_;
    status.outputs = outputs_->status();
    status.screens = session.screens();
    for (const OutputSet::Status& output : status.outputs) {
      status.dropped = std::max(status.dropped, output.video.dropped + output.video.leftOut);
    }
    // Progress and status ask in turn, and both need the latest value.
    const FrameWatch::Timing timing = session.TakeTiming();
    timing_ = timing.frames > 0 ? timing : timing_;
    status.timing = timing_;
    status.channels = board_.entries();
    if (!command_.live) {
      status.elapsed = Elapsed();
      status.total = record_.seconds ? record_.seconds : LengthOf(status.channels);
    }
    return status;
  }

  // Reports the channels that were not shown to their end; true when there are any.
  bool ReportNotShown() {
    bool any = false;
    const std::vector<ChannelBoard::Entry> entries = board_.entries();
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const std::string reason = entries[i].NotShown();
      if (!reason.empty() && command_.wall.channels[i].options.enabled) {
        messages_.Say(qorp::log::kError,
                      "channel \"" + entries[i].name + "\" could not be shown: " + reason);
        any = true;
      }
    }
    return any;
  }

  // Rendered outputs must all be complete; for a live wall it is enough when one output worked.
  ExitCode CodeOfOutputs() const {
    const std::vector<OutputSet::Status> all = outputs_->status();
    const auto lost = std::count_if(all.begin(), all.end(), [&](const OutputSet::Status& output) {
      return output.failed ||
             (command_.live && output.video.written == 0 && !output.failure.empty());
    });
    const bool bad = command_.live ? lost == std::ssize(all) && lost > 0 : lost > 0;
    return bad ? ExitCode::kCouldNotStart : ExitCode::kDone;
  }

  void WriteSnapshotFile() {
    if (record_.snapshot.empty()) {
      return;
    }
    const std::string file = command_.live && !record_.overwrite
                                 ? FreeName(record_.snapshot.string())
                                 : record_.snapshot.string();
    if (snapshot_.Write(file, command_.wall.canvas)) {
      snapshotFile_ = file;
    } else {
      messages_.Say(qorp::log::kError, "no frame was composed: " + file + " was not written");
    }
  }

  // For programs or people; on the error stream when the standard output is otherwise used.
  void PrintEnd() {
    WallStatus status;
    status.seconds = ComposedSeconds();
    status.counters = counters_;
    status.channels = board_.entries();
    status.outputs = outputs_->status();
    status.screens = screens_;
    status.elapsed = Elapsed();
    if (command_.json) {
      streams_.out.clear();
      streams_.out << status.EndLine(command_.live) << "\n";
      return;
    }
    std::ostream& out = plan_.toStandardOutput || command_.events ? streams_.err : streams_.out;
    out.clear();
    out << status.Summary();
    if (!snapshotFile_.empty()) {
      out << snapshotFile_ << "\n";
    }
  }

  const WallCommand& command_;
  const RecordOptions& record_;
  Streams& streams_;
  const RunPlan plan_;
  os::StopSignals signals_;
  std::unique_ptr<MessageLog> messageLog_;
  MessageLog& messages_;
  ComposerLog composerLog_;
  JsonLines lines_;
  JsonLines noLines_;
  ChannelBoard board_;
  Executor executor_{board_};
  WallWatch watch_{board_};
  LatestFrame latestFrame_;
  std::unique_ptr<Preview> preview_;      // null: none is served
  std::unique_ptr<Listening> listening_;  // with the preview
  OutputMessages outputMessages_;
  OutputSet* outputs_ = nullptr;               // of the session
  std::vector<ScreenOutput::Status> screens_;  // at its end
  SnapshotFrame snapshot_;
  std::string snapshotFile_;  // that was written
  std::chrono::steady_clock::time_point startedAt_;
  double lastProgress_ = -1;
  WallSession::Counters counters_;
  FrameWatch::Timing timing_;
  // Its threads use the board, and end before it is destroyed.
  std::unique_ptr<ControlLinks> links_;
};

}  // namespace

ExitCode RunWallCommand(const WallCommand& command, Streams& streams) {
  RunPlan plan = PlanRun(command);
  if (!command.live && plan.outputs.empty() && command.record.snapshot.empty()) {
    plan.mistakes.emplace_back("nothing to write: name a file with --output or --snapshot");
  }
  for (const std::string& remark : plan.remarks) {
    streams.err << "tavrel: " << remark << "\n";
  }
  for (const std::string& mistake : plan.mistakes) {
    streams.err << "tavrel: " << mistake << "\n";
  }
  if (!plan.mistakes.empty()) {
    return ExitCode::kUsage;
  }
  return WallCommandRun(command, std::move(plan), streams).Run();
}

}  // namespace host::cli
