// Whole walls for the tests: clips that the tests make themselves, real decoders, the composer from
// its library.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/config/wall.h"
#include "host/session/wall_session.h"
#include "tests/host/observers.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temporary_folder.h"

namespace e2e {

// A clip whose pictures are flat and tell their number: luma 20 + 2 * (number mod 100), coded
// without loss. audio: an FFmpeg source, empty for none.
void WriteCountingClip(const std::filesystem::path& file, int width, int height,
                       const std::string& rate, int pictures, const std::string& audio = {});
// The number of the picture that a luma tells, mod 100; -1 when it is none.
int PictureNumber(std::uint8_t luma);

// An output that is quickly encoded, with two keyframes a second.
inline host::config::Output To(const std::filesystem::path& url) {
  host::config::Output output;
  output.url = url.string();
  output.preset = "ultrafast";
  output.keyFrameInterval = host::kSecond / 2;
  return output;
}

struct Frame {
  host::Time time = 0;
  std::vector<std::uint8_t> pixels;
};

// Of composed frames, which the composition thread brings.
struct FrameCounter {
  void Take(host::Time time) {
    first = count == 0 ? time : first.load();
    inOrder = inOrder && time > last;
    last = time;
    ++count;
  }
  // Of the clock from the first frame to the last, at 25 frames per second.
  std::uint64_t ticks() const { return static_cast<std::uint64_t>((last - first) / 400000 + 1); }

  std::atomic<std::uint64_t> count{0};
  std::atomic<host::Time> first{0};
  std::atomic<host::Time> last{-1};
  std::atomic<bool> inOrder{true};
};

// A wall of a small canvas; the test adds channels and renders.
class TestWall {
 public:
  TestWall(int width, int height);

  void AddChannel(const std::string& source, host::config::Window window);
  host::config::Wall& wall() { return wall_; }
  host::ChannelLog& channels() { return channels_; }
  host::OutputLog& outputs() { return outputs_; }
  RecordingLogger& logger() { return logger_; }

  // Renders the wall; each frame is copied. beforeFrame is called before each of them.
  std::vector<Frame> Render(std::optional<host::Time> length = std::nullopt,
                            std::chrono::milliseconds stallLimit = std::chrono::seconds(20),
                            const std::function<void(host::WallSession&)>& beforeFrame = {});
  // Renders into outputs; what became of each.
  std::vector<host::OutputSet::Status> RenderInto(const std::vector<host::config::Output>& outputs,
                                                  std::optional<host::Time> length = std::nullopt);
  // A session of the wall that runs live.
  std::unique_ptr<host::WallSession> MakeLive(host::CompositionSink::TakeFrame takeFrame =
                                                  [](const ComPtr<IMediaSample>&, host::Time) {});
  // The same; its frames are counted.
  std::unique_ptr<host::WallSession> MakeLive(FrameCounter& frames) {
    return MakeLive([&](const ComPtr<IMediaSample>&, host::Time time) { frames.Take(time); });
  }
  // Of a session that renders; the wall's outputs are its own.
  host::WallSession::Settings SessionSettings();

  std::uint8_t Luma(const Frame& frame, int x, int y) const;

 private:
  host::config::Wall wall_;
  host::ChannelLog channels_;
  host::OutputLog outputs_;
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
      TestWall& wall, host::WallSession::Settings settings, const char* what,
      const std::function<bool(host::OutputSet&)>& isSo);

  TemporaryFolder folder_;
};

}  // namespace e2e
