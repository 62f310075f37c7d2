#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/config/wall_file.h"
#include "host/control/screen_commands.h"
#include "host/output/screen/audio_sync.h"
#include "host/output/screen/screen_output.h"
#include "tests/host/observers.h"
#include "tests/support/foreign_sample.h"
#include "tests/support/wait_until.h"

namespace host {
namespace {

using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::HasSubstr;

// The processes that this one has started.
std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream list(task.path() / "children");
    for (pid_t child = 0; list >> child;) {
      children.push_back(child);
    }
  }
  return children;
}

ScreenOutput::Settings Small() {
  ScreenOutput::Settings settings;
  settings.name = "screen:0";
  settings.program = TAVREL_PROGRAM;
  settings.width = 64;
  settings.height = 48;
  settings.reopen = {milliseconds(10), milliseconds(20)};
  return settings;
}

TEST(ScreenOutput, ComesBackWhateverBecomesOfItsWindowAndNobodyWaitsForIt) {
  ::setenv("SDL_VIDEODRIVER", "dummy", 1);
  OutputLog log;
  ScreenOutput::Settings settings = Small();
  settings.answerLimit = milliseconds(5'000);
  ScreenOutput screen(settings, &log);
  const auto frame = fakes::ForeignSample::Create(64 * 48 * 3 / 2);
  const auto shows = [&] {
    const std::uint64_t before = screen.status().shown;
    return WaitUntil("frames on the display", [&] {
      screen.Take(ComPtr<IMediaSample>(frame.Get()), 0);
      return screen.status().shown >= before + 3;
    });
  };
  ASSERT_TRUE(shows());
  EXPECT_EQ(screen.status().state, ScreenOutput::State::kOpen);

  ASSERT_EQ(Children().size(), 1U);
  ::kill(Children()[0], SIGKILL);
  ASSERT_TRUE(shows());
  EXPECT_EQ(log.failures().at(0), "screen:0: its window has crashed (signal 9)");

  // It is stopped: frames are skipped and not kept.
  ::kill(Children()[0], SIGSTOP);
  WaitUntil("a window that does not answer", [&] {
    screen.Take(ComPtr<IMediaSample>(frame.Get()), 0);
    return log.failures().size() == 2;
  });
  EXPECT_EQ(log.failures().at(1), "screen:0: its display does not answer");
  ASSERT_TRUE(shows());
  EXPECT_EQ(log.openings(), (Lines{"screen:0", "again: screen:0", "again: screen:0"}));
  EXPECT_GT(screen.status().skipped, 0U);
  EXPECT_EQ(screen.status().openings, 3U);
  screen.Finish();
  EXPECT_TRUE(Children().empty());
  WaitUntil("the last reference to a frame", [&] {
    const ULONG references = frame->AddRef();
    frame->Release();
    return references == 2;
  });
}

TEST(ScreenOutput, SaysWhyADisplayIsNotThereAndTriesAgain) {
  ::setenv("SDL_VIDEODRIVER", "dummy", 1);
  OutputLog log;
  ScreenOutput::Settings settings = Small();
  settings.screen.display = 1;
  const ScreenOutput screen(settings, &log);
  WaitUntil("two attempts", [&] { return log.failures().size() >= 2; });
  EXPECT_THAT(log.failures(), Each("screen:0: there is no display 1; 1 is there"));
  EXPECT_EQ(screen.status().state, ScreenOutput::State::kFailed);
}

// The value of each sample gives its time on the wall. The audio device is 2000 ppm slower than the
// machine; frames are shown up to a refresh late; then the clock jumps by 0.3 s.
TEST(AudioSync, StaysInStepWithTheFramesOnADeviceWithAClockOfItsOwn) {
  constexpr double kScale = 1 << 22;  // samples
  constexpr Time kStep = kSecond / 50;
  constexpr std::size_t kSamples = AudioSync::kSampleRate / 50;
  AudioSync sync;
  Time offset = 5 * kSecond;  // of the machine against the wall
  double device = 0;          // seconds that it has played
  double worst = 0;
  double latest = 0;  // that was heard
  int silent = 0;
  int jumps = 0;
  for (Time wall = 0; wall < 40 * kSecond; wall += kStep) {
    offset += wall == 20 * kSecond ? 3 * kSecond / 10 : 0;
    // Half a second of the source's audio is missing.
    if (wall < 30 * kSecond || wall >= 30 * kSecond + kSecond / 2) {
      std::vector<float> samples;
      const Time ahead = wall + kSecond;  // audio leads
      for (std::size_t i = 0; i < kSamples; ++i) {
        const double at = static_cast<double>(ahead) * AudioSync::kSampleRate / kSecond;
        samples.insert(samples.end(), 2,
                       static_cast<float>((at + static_cast<double>(i)) / kScale));
      }
      sync.Push(samples, ahead);
    }
    sync.FrameShown(wall, wall + offset + wall / kStep % 2 * (kSecond / 60));
    const double machine = static_cast<double>(wall + offset) / kSecond;
    for (device = device == 0 ? machine : device; device < machine;
         device += 480 * 1.002 / AudioSync::kSampleRate) {
      std::vector<float> heard(480 * AudioSync::kChannels);
      const Time now = static_cast<Time>(device * kSecond);
      sync.Pull(heard, now);
      const double expected = static_cast<double>(now - offset - kSecond / 120) / kSecond;
      const double got = heard[0] * kScale / AudioSync::kSampleRate;
      const bool hasJumped = wall >= 20 * kSecond && wall < 21 * kSecond;
      if (heard[0] == 0.0F) {
        ++silent;
      } else if (wall > 2 * kSecond && !hasJumped) {
        worst = std::max(worst, std::abs(got - expected));
        jumps += std::abs(got - latest - 0.01) > 0.005 ? 1 : 0;
      }
      latest = got;
    }
  }
  EXPECT_LE(worst, 0.040) << "seconds between audio and frames";
  EXPECT_LE(jumps, 2) << "after the start, the move and the gap it is heard without one";
  // A second before there is any, half a second within, and 0.3 s of waiting for the frames.
  EXPECT_NEAR(silent, 180, 20) << "hundredths of a second without audio";
}

TEST(ScreenCommands, ClicksAndKeysDoWhatTheyDoOnThePage) {
  using control::WallState;
  using Kind = ScreenInput::Kind;
  std::string text = "[wall]\nwidth=640\nheight=360\n";
  for (const char* const name : {"A", "B", "C", "D"}) {
    text += std::string("[[channel]]\nname='") + name + "'\nsource='udp://239.1.1.1:1'\n";
  }
  WallState state = WallState::Of(config::ParseWall(text, "/").wall);
  state.PlaceWindows();  // A B over C D
  const auto command = [&](Kind kind, int digit = 0, int x = 0, int y = 0) {
    const nlohmann::json made = control::CommandOf({kind, x, y, digit}, state);
    std::string words;
    for (const auto& value : made) {
      words += (words.empty() ? "" : " ") + value.get<std::string>();
    }
    return words;
  };
  const config::Window c = state.Find("C")->settings.window;
  EXPECT_EQ(command(Kind::kClick, 0, c.x, c.y), "C select");
  EXPECT_EQ(command(Kind::kClick, 0, c.x - 1, c.y), "") << "beside every window";
  EXPECT_EQ(command(Kind::kDoubleClick, 0, c.x + c.width - 1, c.y + c.height - 1), "C solo");
  EXPECT_EQ(command(Kind::kRight), "A select") << "the first one when none is selected";
  EXPECT_EQ(command(Kind::kEnter), "");
  EXPECT_EQ(command(Kind::kEscape), "");
  state.Find("A")->settings.selected = true;
  EXPECT_EQ(command(Kind::kRight), "B select");
  EXPECT_EQ(command(Kind::kDown), "C select");
  EXPECT_EQ(command(Kind::kLeft), "");
  EXPECT_EQ(command(Kind::kUp), "");
  EXPECT_EQ(command(Kind::kEnter), "A solo");
  EXPECT_EQ(command(Kind::kChannel, 4), "D select");
  EXPECT_EQ(command(Kind::kChannel, 5), "");
  EXPECT_EQ(command(Kind::kLayout, 2), "layout 1") << "after \"auto\"";
  state.layout = "5x5";
  EXPECT_EQ(command(Kind::kNextLayout), "layout 6x6");
  state.canvas.width = state.canvas.height = 96;
  EXPECT_EQ(command(Kind::kNextLayout), "layout 1+5") << "36 windows find no room";
  state.solo = "A";
  state.PlaceWindows();
  EXPECT_EQ(command(Kind::kEscape), "solo_off");
  EXPECT_EQ(command(Kind::kDoubleClick, 0, 50, 40), "solo_off");
}

}  // namespace
}  // namespace host
