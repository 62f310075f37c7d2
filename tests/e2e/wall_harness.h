// Whole walls for the tests: clips that the tests make themselves, real decoders, the composer from
// its library.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/session/wall_session.h"
#include "host/wall/wall.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temporary_folder.h"

namespace e2e {

// A clip whose pictures are flat and tell their number: luma 20 + 2 * (number mod 100), coded
// without loss. sound: an FFmpeg source, empty for none.
void WriteCountingClip(const std::filesystem::path& file, int width, int height,
                       const std::string& rate, int pictures, const std::string& sound = {});
// The number of the picture that a luma tells, mod 100; -1 when it is none.
int PictureNumber(std::uint8_t luma);

// Collects what the session tells.
class ChannelLog final : public host::ChannelObserver {
 public:
  void ChannelOpened(const std::string& channel, const host::MediaInfo& info) override;
  void ChannelEnded(const std::string& channel) override;
  void ChannelFailed(const std::string& channel, const std::string& reason,
                     std::optional<std::chrono::milliseconds> retryIn) override;
  void ChannelChanged(const std::string& channel, const host::ChannelLife::Status& status) override;
  void AudioChanged(const std::string& channel, const host::AudioStatus& status) override;
  void AlarmChanged(const std::string& channel, const host::AlarmMonitor::Change& change) override;

  // In their order: "live", "held: reason"; "freeze on", "freeze off".
  std::vector<std::string> States(const std::string& channel) const;
  // Until the channel has been in so many states and is in this one, as States has it.
  bool WaitForState(const std::string& channel, std::size_t count, const std::string& state,
                    std::chrono::seconds limit = std::chrono::seconds(60)) const;
  std::vector<std::string> Alarms(const std::string& channel) const;
  std::vector<std::string> Audio(const std::string& channel) const;  // "absent: it has no audio"
  void ChannelSoundChanged(const std::string& channel, const std::string& what) override;

  std::vector<std::string> Sound(const std::string& channel) const;  // what was said of it
  bool Opened(const std::string& channel) const;
  bool Ended(const std::string& channel) const;
  std::string Failure(const std::string& channel) const;  // the latest; empty without one

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::map<std::string, int> opened_;
  std::map<std::string, int> ended_;
  std::map<std::string, std::string> failures_;
  std::map<std::string, std::vector<std::string>> states_;
  std::map<std::string, std::vector<std::string>> alarms_;
  std::map<std::string, std::vector<std::string>> sound_;
  std::map<std::string, std::vector<std::string>> audio_;
};

// Collects what the outputs tell.
class OutputLog final : public host::OutputObserver {
 public:
  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<std::chrono::milliseconds> retryIn) override;
  void OutputOpened(const std::string& output, const std::string& target, Opening opening) override;
  void OutputSaid(const std::string& output, const std::string& what) override;

  std::vector<std::string> failures() const;  // "output: reason"
  std::vector<std::string> said() const;
  std::vector<std::string> targets() const;  // files and connections, in the order of opening
  int recoveries() const;

 private:
  mutable std::mutex lock_;
  std::vector<std::string> failures_;
  std::vector<std::string> said_;
  std::vector<std::string> targets_;
  int recoveries_ = 0;
};

struct Frame {
  host::Time time = 0;
  std::vector<std::uint8_t> pixels;
};

// A wall of a small canvas; the test adds channels and renders.
class TestWall {
 public:
  TestWall(int width, int height);

  void AddChannel(const std::string& source, host::wall::Window window);
  host::wall::Wall& wall() { return wall_; }
  ChannelLog& channels() { return channels_; }
  OutputLog& outputs() { return outputs_; }
  RecordingLogger& logger() { return logger_; }

  // Renders the wall; each frame is copied. beforeFrame is called before each of them.
  std::vector<Frame> Render(std::optional<host::Time> length = std::nullopt,
                            std::chrono::milliseconds stallLimit = std::chrono::seconds(20),
                            const std::function<void(host::WallSession&)>& beforeFrame = {});
  // Renders into outputs; what became of each.
  std::vector<host::OutputSet::Status> RenderInto(const std::vector<host::wall::Output>& outputs,
                                                  std::optional<host::Time> length = std::nullopt);
  // A session of the wall that runs live.
  std::unique_ptr<host::WallSession> MakeLive(host::CompositionSink::TakeFrame takeFrame);
  // Of a session that renders; the wall's outputs are its own.
  host::WallSession::Settings SessionSettings();

  std::uint8_t Luma(const Frame& frame, int x, int y) const;

 private:
  host::wall::Wall wall_;
  ChannelLog channels_;
  OutputLog outputs_;
  RecordingLogger logger_;
};

// A test in a folder of its own. Whatever it makes of the composer must be gone with it: every
// filter, pin, sample and allocator, those of the composer's library too.
class WallTest : public testing::Test {
 protected:
  void TearDown() override;

  // Runs the wall live until something is the case with its outputs, which is asked again and
  // again, a minute at the most; then they are written to their end.
  std::unique_ptr<host::WallSession> RunLiveUntil(
      TestWall& wall, host::WallSession::Settings settings, const std::string& what,
      const std::function<bool(host::OutputSet&)>& isSo);

  TemporaryFolder folder_;
};

}  // namespace e2e
