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

#include "host/cli/demo/clip_writer.h"
#include "host/config/value_text.h"
#include "host/config/wall.h"
#include "host/session/wall_session.h"
#include "platform/os/process.h"
#include "tests/host/observers.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait_until.h"

namespace e2e {

// A clip of flat, numbered frames: luma 20 + 2 * (number mod 100), coded without loss. audio: an
// FFmpeg source, empty for none.
inline void WriteCountingClip(const std::filesystem::path& file, int width, int height,
                              const std::string& rate, int pictures,
                              const std::string& audio = {}) {
  host::ClipRecipe recipe;
  recipe.name = file.stem().string();
  recipe.pictures = "color=black:size=" + std::to_string(width) + "x" + std::to_string(height) +
                    ":rate=" + rate + ",format=yuv420p,geq=lum='20+2*mod(N,100)':cb=128:cr=128";
  recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}};
  recipe.audio = audio;
  recipe.length = host::FrameStart(pictures, *host::config::ParseFrameRate(rate));
  host::WriteClip(recipe, file);
}
// The frame number that a luma stands for, mod 100; -1 when it is none.
inline int FrameNumber(std::uint8_t luma) {
  return luma >= 20 && luma <= 218 && luma % 2 == 0 ? (luma - 20) / 2 : -1;
}

// An output with a fast encoder, with two keyframes a second.
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

// Counts composed frames, on the composition thread.
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
  TestWall(int width, int height) {
    wall_.canvas.width = width;
    wall_.canvas.height = height;
    wall_.canvas.aspect = host::Reduced(host::Ratio{width, height});  // square pixels
    wall_.canvas.background.kind = host::config::Background::Kind::kColour;
    wall_.canvas.background.top = {0, 0, 0};  // luma 16
  }

  void AddChannel(const std::string& source, host::config::Window window) {
    host::config::Channel channel;
    channel.name = std::filesystem::path(source).stem().string();
    channel.source = source;
    channel.window = window;
    channel.label.source = host::config::Label::Source::kNone;
    channel.options.audio.meter = false;
    for (host::config::Alarm* const alarm :
         {&channel.options.alarm.loss, &channel.options.alarm.black, &channel.options.alarm.freeze,
          &channel.options.alarm.silence, &channel.options.alarm.clipping}) {
      alarm->enabled = false;
    }
    wall_.channels.push_back(channel);
  }
  host::config::Wall& wall() { return wall_; }
  host::ChannelLog& channels() { return channels_; }
  host::OutputLog& outputs() { return outputs_; }
  RecordingLogger& logger() { return logger_; }

  // Renders the wall; each frame is copied. beforeFrame is called before each of them.
  std::vector<Frame> Render(std::optional<host::Time> length = std::nullopt,
                            std::chrono::milliseconds stallLimit = std::chrono::seconds(20),
                            const std::function<void(host::WallSession&)>& beforeFrame = {}) {
    std::vector<Frame> frames;  // the composition thread's, until the session is gone
    host::WallSession::Settings settings = SessionSettings();
    settings.takeFrame = [&](const ComPtr<IMediaSample>& sample, host::Time time) {
      BYTE* pixels = nullptr;
      sample->GetPointer(&pixels);
      frames.push_back({time, {pixels, pixels + sample->GetActualDataLength()}});
    };
    host::WallSession session(std::move(settings));
    host::WallSession::RenderControl control;
    control.length = length;
    control.stallLimit = stallLimit;
    control.stop = [&] {
      if (beforeFrame) {
        beforeFrame(session);
      }
      return false;
    };
    session.Render(control);
    return frames;
  }
  // Renders into outputs; returns their status.
  std::vector<host::OutputSet::Status> RenderInto(const std::vector<host::config::Output>& outputs,
                                                  std::optional<host::Time> length = std::nullopt) {
    wall_.outputs = outputs;
    host::WallSession session(SessionSettings());
    host::WallSession::RenderControl control;
    control.length = length;
    control.stallLimit = std::chrono::seconds(60);
    session.Render(control);
    session.Finish();
    return session.outputs().status();
  }
  // A session of the wall that runs live.
  std::unique_ptr<host::WallSession> MakeLive(host::CompositionSink::TakeFrame takeFrame =
                                                  [](const ComPtr<IMediaSample>&, host::Time) {}) {
    host::WallSession::Settings settings = SessionSettings();
    settings.takeFrame = std::move(takeFrame);
    settings.live = true;
    return std::make_unique<host::WallSession>(std::move(settings));
  }
  // The same; its frames are counted.
  std::unique_ptr<host::WallSession> MakeLive(FrameCounter& frames) {
    return MakeLive([&](const ComPtr<IMediaSample>&, host::Time time) { frames.Take(time); });
  }
  // Of a session that renders; the wall's outputs are its own.
  host::WallSession::Settings SessionSettings() {
    host::WallSession::Settings settings;
    settings.wall = wall_;
    settings.composerLibrary = TAVREL_COMPOSER_LIBRARY;
    settings.logger = &logger_;
    settings.observer = &channels_;
    settings.outputObserver = &outputs_;
    return settings;
  }

  std::uint8_t Luma(const Frame& frame, int x, int y) const {
    return frame.pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(wall_.canvas.width) +
                        static_cast<std::size_t>(x)];
  }

 private:
  host::config::Wall wall_;
  host::ChannelLog channels_;
  host::OutputLog outputs_;
  RecordingLogger logger_;
};

inline bool NothingIsLeft() {
  const auto library = os::Module::Load(TAVREL_COMPOSER_LIBRARY);
  auto* const canUnload = library->Find<HRESULT()>("DllCanUnloadNow");
  return CUnknown::ObjectsActive() == 0 && canUnload != nullptr && canUnload() == S_OK;
}

// A test in a folder of its own. All objects of the composer that it makes must be destroyed at its
// end: every filter, pin, sample and allocator, those of the composer's library too.
class WallTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(NothingIsLeft()) << "a sample, an allocator, a pin or a filter was leaked";
  }

  // Runs the wall live until a condition of its outputs is met, which is polled for a minute at
  // most; then they are written to their end.
  std::unique_ptr<host::WallSession> RunLiveUntil(
      TestWall& wall, host::WallSession::Settings settings, const char* what,
      const std::function<bool(host::OutputSet&)>& isSo) {
    settings.live = true;
    auto session = std::make_unique<host::WallSession>(std::move(settings));
    session->Start();
    if (!WaitUntil(what, [&] { return isSo(session->outputs()); })) {
      ADD_FAILURE() << testing::PrintToString(wall.outputs().failures());
    }
    session->Stop();
    session->Finish();
    return session;
  }

  TemporaryFolder folder_;
};

}  // namespace e2e
