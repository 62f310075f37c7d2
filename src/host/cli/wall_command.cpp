#include "host/cli/wall_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/cli/message_log.h"
#include "host/cli/stop_signals.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "host/output/picture_recorder.h"
#include "host/output/snapshot.h"
#include "host/session/wall_session.h"

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

struct Recording {
  std::string url;  // without credentials
  std::string pin;  // how the logger knows it
  std::unique_ptr<PictureRecorder> recorder;
  std::string failure;
};

PictureRecorder::Settings RecorderSettings(const wall::Canvas& canvas, const wall::Output& output) {
  PictureRecorder::Settings settings;
  settings.frameRate = canvas.frameRate;
  settings.encoder.width = canvas.width;
  settings.encoder.height = canvas.height;
  settings.encoder.frameRate = canvas.frameRate;
  settings.encoder.pixelAspect = PixelAspect(canvas.width, canvas.height, canvas.aspect);
  settings.encoder.codec = output.codec;
  settings.encoder.preset = output.preset;
  settings.encoder.bitRate = output.bitRate;
  settings.encoder.quality = output.quality;
  settings.encoder.keyFrameInterval = output.keyFrameInterval;
  settings.encoder.lowDelay = output.lowDelay;
  settings.muxer.url = output.url;
  settings.muxer.format = output.format;
  settings.muxer.options = output.options;
  return settings;
}

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
        snapshot_(command.record.snapshotAt) {}

  ExitCode Run() {
    for (const wall::Output& output : OutputsOf(command_)) {
      const std::string url = ffmpeg::MaskCredentials(output.url);
      recordings_.push_back({url, "output " + std::to_string(recordings_.size() + 1), nullptr, {}});
      messages_.logger().RegisterPin(recordings_.back().pin.c_str());
      recordings_.back().recorder =
          std::make_unique<PictureRecorder>(RecorderSettings(command_.wall.canvas, output));
    }
    WallSession session(SessionSettings());
    messages_.StartRecords();
    startedAt_ = std::chrono::steady_clock::now();
    command_.live ? RunLive(session) : RunRendering(session);
    counters_ = session.counters();
    const ExitCode code = FinishRecordings();
    WriteSnapshotFile();
    if (command_.live && counters_.late + counters_.starved > 0) {
      messages_.Say(qorp::log::kWarning, std::to_string(counters_.late + counters_.starved) +
                                             " frames were skipped because they came too late");
    }
    messages_.WipeProgress();
    messages_.Flush();
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
    settings.observer = &messages_;
    settings.live = command_.live;
    settings.takeFrame = [this](const ComPtr<IMediaSample>& frame, Time start) {
      for (const Recording& recording : recordings_) {
        if (!recording.recorder->Take(frame, start) && !recording.recorder->failed()) {
          messages_.logger().NotifyBufferFull(recording.pin.c_str());
        }
      }
      if (!command_.record.snapshot.empty()) {
        snapshot_.Take(frame, start);
      }
    };
    return settings;
  }

  void RunLive(WallSession& session) {
    session.Start();
    while (!signals_.Requested() && !AllRecordingsFailed()) {
      const Time now = session.now();
      const Time end = command_.record.seconds.has_value() ? Length() : now + kSecond;
      if (now >= end) {
        break;
      }
      signals_.WaitFor(milliseconds(std::clamp<Time>((end - now) / kMillisecond + 1, 1, 200)));
      ShowProgress(session);
    }
    session.Stop();
  }

  void RunRendering(WallSession& session) {
    WallSession::RenderControl control;
    if (command_.record.seconds.has_value()) {
      control.length = Length();
    }
    control.waitForRoom = [this] {
      for (const Recording& recording : recordings_) {
        while (!recording.recorder->failed() && !signals_.Requested() &&
               !recording.recorder->WaitForRoom(milliseconds(100))) {
        }
      }
      return !AllRecordingsFailed();
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

  bool AllRecordingsFailed() const {
    if (recordings_.empty()) {
      return false;
    }
    for (const Recording& recording : recordings_) {
      if (!recording.recorder->failed()) {
        return false;
      }
    }
    return true;
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
    counters_ = session.counters();
    std::string line = Seconds(ComposedSeconds()) + ", " + std::to_string(counters_.composed) +
                       " frames, channels: " + std::to_string(messages_.CountIn("live")) +
                       " live, " + std::to_string(messages_.CountIn("ended")) + " ended, " +
                       std::to_string(messages_.CountIn("failed")) + " failed";
    if (command_.live) {
      std::uint64_t dropped = 0;
      for (const Recording& recording : recordings_) {
        dropped += recording.recorder->dropped();
      }
      line += "; late " + std::to_string(counters_.late + counters_.starved) + ", dropped " +
              std::to_string(dropped);
    }
    messages_.ShowProgress(line);
  }

  ExitCode FinishRecordings() {
    std::size_t failed = 0;
    for (Recording& recording : recordings_) {
      try {
        recording.recorder->Finish();
      } catch (const std::exception& error) {
        recording.failure = error.what();
        messages_.Say(qorp::log::kError, "output " + recording.url + ": " + recording.failure);
        ++failed;
      }
    }
    return failed > 0 && failed == recordings_.size() ? ExitCode::kCouldNotStart : ExitCode::kDone;
  }

  void WriteSnapshotFile() {
    if (!command_.record.snapshot.empty() &&
        !snapshot_.Write(command_.record.snapshot, command_.wall.canvas)) {
      messages_.Say(qorp::log::kError, "no frame was composed: " +
                                           command_.record.snapshot.string() + " was not written");
    }
  }

  void PrintSummary() {
    for (const Recording& recording : recordings_) {
      if (recording.failure.empty()) {
        streams_.out << recording.url << ": " << recording.recorder->written() << " frames, "
                     << Seconds(ComposedSeconds()) << "\n";
      }
    }
    if (!command_.record.snapshot.empty()) {
      streams_.out << command_.record.snapshot.string() << "\n";
    }
  }

  void PrintJson() {
    nlohmann::ordered_json report;
    report["frames"] = counters_.composed;
    report["seconds"] = ComposedSeconds();
    report["elapsed"] = Elapsed();
    report["late"] = counters_.late;
    report["starved"] = counters_.starved;
    report["outputs"] = nlohmann::ordered_json::array();
    for (const Recording& recording : recordings_) {
      nlohmann::ordered_json output = {{"url", recording.url},
                                       {"frames", recording.recorder->written()},
                                       {"dropped", recording.recorder->dropped()}};
      if (!recording.failure.empty()) {
        output["failure"] = recording.failure;
      }
      report["outputs"].push_back(output);
    }
    report["channels"] = nlohmann::ordered_json::array();
    const auto channels = messages_.channels();
    for (const wall::Channel& channel : command_.wall.channels) {
      const auto found = channels.find(channel.name);
      nlohmann::ordered_json entry = {
          {"name", channel.name},
          {"state", found == channels.end() ? "opening" : found->second.state}};
      if (found != channels.end() && !found->second.reason.empty()) {
        entry["reason"] = found->second.reason;
      }
      report["channels"].push_back(entry);
    }
    streams_.out << report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                 << "\n";
  }

  const WallCommand& command_;
  Streams& streams_;
  StopSignals signals_;
  MessageLog messages_;
  SnapshotFrame snapshot_;
  std::vector<Recording> recordings_;
  std::chrono::steady_clock::time_point startedAt_;
  double lastProgress_ = -1;
  WallSession::Counters counters_;
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
