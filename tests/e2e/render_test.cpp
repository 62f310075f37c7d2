#include <map>
#include <random>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/cli/demo/clip_writer.h"
#include "host/config/value_text.h"
#include "tests/e2e/wall_harness.h"
#include "tests/support/pipe.h"
#include "tests/support/temporary_folder.h"

namespace {

using e2e::Frame;
using e2e::FrameNumber;
using e2e::TestWall;
using e2e::WriteCountingClip;
using host::kSecond;
using testing::ElementsAre;

constexpr host::Time kFrameTime = 400000;
constexpr int kSlateLuma = 30;
constexpr int kAlarmLuma = 76;

class RenderTest : public e2e::WallTest {
 protected:
  std::string Clip(const std::string& name, const std::string& rate, int pictures,
                   const std::string& audio = {}) {
    const std::filesystem::path file = folder_ / (name + ".mkv");
    WriteCountingClip(file, 64, 48, rate, pictures, audio);
    return file.string();
  }

  TestWall wall_{320, 240};
};

TEST_F(RenderTest, ShowsEveryClipInItsPlaceFromItsFirstFrameOn) {
  struct Case {
    const char* name;
    const char* rate;
    double framesPerSecond;
    host::config::Window window;
  };
  const Case cases[] = {
      {"slow", "10", 10, {0, 0, 64, 48}},
      {"even", "25", 25, {100, 0, 64, 48}},
      {"ntsc", "30000/1001", 30000 / 1001.0, {0, 100, 64, 48}},
      {"fast", "50", 50, {100, 100, 64, 48}},
      // Partly outside the canvas.
      {"edge", "25", 25, {290, 210, 64, 48}},
  };
  for (const Case& c : cases) {
    wall_.AddChannel(Clip(c.name, c.rate, static_cast<int>(3 * c.framesPerSecond)), c.window);
  }
  const std::vector<Frame> frames = wall_.Render(2 * kSecond);
  ASSERT_EQ(frames.size(), 50U);
  for (std::size_t n = 0; n < frames.size(); ++n) {
    ASSERT_EQ(frames[n].time, static_cast<host::Time>(n) * kFrameTime) << "every frame, in order";
    for (const Case& c : cases) {
      const int number = FrameNumber(wall_.Luma(frames[n], c.window.x + 2, c.window.y + 2));
      ASSERT_GE(number, 0) << c.name << " in frame " << n;
      const double shown = number / c.framesPerSecond;
      const double due = static_cast<double>(frames[n].time) / kSecond;
      // The nearest frame; of a source that is faster than the canvas, one of those left.
      const double pictures = c.framesPerSecond > 25 ? 25 / 1.3 : c.framesPerSecond;
      EXPECT_NEAR(shown, due, 0.5 / pictures + 0.001) << c.name << " in frame " << n;
    }
    EXPECT_EQ(wall_.Luma(frames[n], 80, 10), 16) << "nothing between the windows";
    EXPECT_EQ(wall_.Luma(frames[n], 64, 10), 16);
    EXPECT_EQ(wall_.Luma(frames[n], 10, 48), 16);
  }
}

TEST_F(RenderTest, BeginsWithTheFirstFrameAndShowsEachOnceAtTheRateOfTheSource) {
  for (const char* const rate : {"10/1", "25/2", "24000/1001", "30000/1001", "60/1"}) {
    TestWall wall(64, 48);
    wall.wall().canvas.frameRate = *host::config::ParseFrameRate(rate);
    const std::string name = "rate" + std::to_string(rate[0]) + std::to_string(rate[1]);
    wall.AddChannel(Clip(name, rate, 30), {0, 0, 60, 44});
    const std::vector<Frame> frames = wall.Render(kSecond);
    ASSERT_GE(frames.size(), 10U);
    for (std::size_t n = 0; n < 10; ++n) {
      EXPECT_EQ(FrameNumber(wall.Luma(frames[n], 2, 2)), static_cast<int>(n)) << rate;
    }
  }
}

TEST_F(RenderTest, GivesTheSameFramesEachTime) {
  for (int i = 0; i < 9; ++i) {
    const std::string rate = i % 3 == 0 ? "25" : i % 3 == 1 ? "30000/1001" : "24";
    wall_.AddChannel(Clip("clip" + std::to_string(i), rate, 30 + 5 * i, "sine=440:d=2"),
                     {(i % 3) * 100, (i / 3) * 80, 64, 48});
    wall_.wall().channels.back().options.audio.meter = true;
  }
  const std::vector<Frame> first = wall_.Render();
  const std::vector<Frame> second = wall_.Render();
  ASSERT_EQ(first.size(), second.size());
  ASSERT_GT(first.size(), 50U);
  for (std::size_t n = 0; n < first.size(); ++n) {
    ASSERT_EQ(first[n].time, second[n].time);
    ASSERT_TRUE(first[n].pixels == second[n].pixels) << "frame " << n << " differs";
  }
  // 30 to 70 frames of nine clips, twice.
  EXPECT_EQ(wall_.logger().Counts().decodedPictures, 2 * 9 * 50);
  EXPECT_EQ(wall_.logger().Counts().discontinuities, 0);
}

TEST_F(RenderTest, ContinuesWhenChannelsEndOrCannotBeUsed) {
  WriteWholeFile(folder_ / "notes.mp4", "these are not pictures\n");
  host::ClipRecipe recipe;
  recipe.audio = "sine=440";
  recipe.length = kSecond;
  host::WriteClip(recipe, folder_ / "audio.mkv");
  wall_.AddChannel(Clip("short", "25", 10), {0, 0, 64, 48});
  wall_.AddChannel(Clip("brief", "25", 10), {200, 0, 64, 48});
  wall_.wall().channels[1].options.hold = kSecond;
  wall_.AddChannel(Clip("long", "25", 60), {100, 0, 64, 48});
  wall_.AddChannel((folder_ / "notes.mp4").string(), {0, 100, 64, 48});
  wall_.AddChannel((folder_ / "missing.mp4").string(), {100, 100, 64, 48});
  wall_.AddChannel((folder_ / "audio.mkv").string(), {200, 100, 64, 48});
  const std::vector<Frame> frames = wall_.Render();
  // To the end of the longest.
  ASSERT_GE(frames.size(), 59U);
  ASSERT_LE(frames.size(), 63U);
  EXPECT_EQ(FrameNumber(wall_.Luma(frames.back(), 2, 2)), 9) << "its last picture stays";
  EXPECT_GE(FrameNumber(wall_.Luma(frames.back(), 102, 2)), 58);
  EXPECT_EQ(wall_.Luma(frames.back(), 2, 102), kSlateLuma) << "it says that it is no media file";
  EXPECT_EQ(wall_.Luma(frames.back(), 102, 102), kSlateLuma) << "it says that there is no file";
  EXPECT_EQ(FrameNumber(wall_.Luma(frames[9 + 25 - 5], 202, 2)), 9) << "held for a second";
  EXPECT_EQ(wall_.Luma(frames[9 + 25 + 10], 202, 2), kSlateLuma);
  EXPECT_EQ(wall_.Luma(frames.back(), 202, 2), kSlateLuma);
  const host::ChannelLog& channels = wall_.channels();
  EXPECT_THAT(channels.States("brief"), ElementsAre("live", "held: ended", "lost: ended"));
  EXPECT_THAT(channels.States("long"), ElementsAre("live", "held: ended"));
  EXPECT_TRUE(channels.Ended("short"));
  EXPECT_FALSE(channels.Failure("notes").empty());
  EXPECT_EQ(channels.Failure("missing"), "no such file");
  EXPECT_TRUE(channels.Opened("audio")) << "a channel may be heard only";
}

// Video that is black from its second second to its fourth, and video that is frozen then.
TEST_F(RenderTest, ShowsTheAlarmsOfVideoAndAudioInTheMeterWhileTheyLast) {
  struct Case {
    const char* name;
    const char* pictures;
    const char* audio;
    host::config::Alarm host::config::AlarmOptions::*alarm;
    host::Time notBefore = 28 * kSecond / 10;
  };
  // Moving noise; the fault between the seconds 2 and 4.
  const Case cases[] = {
      {"black", "geq=lum='if(between(T,2,4),16,mod(X*N,200)+20)':cb=128:cr=128", "sine=440:d=6",
       &host::config::AlarmOptions::black},
      {"freeze", "geq=lum='mod(X*if(between(T,2,4),50,N),200)+20':cb=128:cr=128", "sine=440:d=6",
       &host::config::AlarmOptions::freeze},
      {"silence", "geq=lum='mod(X*N,200)+20':cb=128:cr=128",
       "aevalsrc='0.3*sin(2*PI*440*t)*not(between(t,2,4))':s=48000:d=6",
       &host::config::AlarmOptions::silence},
      {"clipping", "geq=lum='mod(X*N,200)+20':cb=128:cr=128",
       "aevalsrc='if(between(t,2,4)*lt(mod(t,0.3),0.01),1,0.3)*sin(2*PI*440*t)':s=48000:d=6",
       &host::config::AlarmOptions::clipping, 23 * kSecond / 10},
  };
  int x = 0;
  for (const Case& c : cases) {
    host::ClipRecipe recipe;
    recipe.pictures = std::string("color=black:size=40x48:rate=25,format=yuv420p,") + c.pictures;
    recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}};
    recipe.audio = c.audio;
    recipe.audioCodec = "pcm_s16le";
    recipe.length = 6 * kSecond;
    host::WriteClip(recipe, folder_ / (std::string(c.name) + ".mkv"));
    wall_.AddChannel((folder_ / (std::string(c.name) + ".mkv")).string(), {x, 0, 60, 48});
    host::config::ChannelOptions& options = wall_.wall().channels.back().options;
    options.audio.meter = true;
    (options.alarm.*c.alarm).enabled = true;
    (options.alarm.*c.alarm).setAfter = kSecond;
    (options.alarm.*c.alarm).clearAfter = kSecond / 2;
    x += 80;
  }
  const std::vector<Frame> frames = wall_.Render(6 * kSecond);
  // The box in the top band of the meter: 6 x 4 pixels of panel, 3 x 2 of alarm.
  const auto alarm = [&](std::size_t index, host::Time due) {
    const Frame& frame = frames[static_cast<std::size_t>(due / kFrameTime)];
    return wall_.Luma(frame, static_cast<int>(index) * 80 + 3, 3) == kAlarmLuma;
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_FALSE(alarm(i, kSecond)) << cases[i].name;
    EXPECT_FALSE(alarm(i, cases[i].notBefore)) << cases[i].name << " before its time to set";
    EXPECT_TRUE(alarm(i, 33 * kSecond / 10)) << cases[i].name;
    EXPECT_TRUE(alarm(i, 42 * kSecond / 10)) << cases[i].name << " before its time to clear";
    EXPECT_FALSE(alarm(i, 48 * kSecond / 10)) << cases[i].name;
    EXPECT_THAT(
        wall_.channels().Alarms(cases[i].name),
        ElementsAre(std::string(cases[i].name) + " on", std::string(cases[i].name) + " off"));
  }
}

TEST_F(RenderTest, SaysWhyAMeterIsEmpty) {
  const auto clip = [&](const std::string& name, const std::string& audio, const std::string& codec,
                        const std::string& announced) {
    host::ClipRecipe recipe;
    recipe.pictures = "testsrc2=size=64x48:rate=25,format=yuv420p";
    recipe.audio = audio;
    recipe.audioCodec = codec;
    recipe.length = 5 * kSecond;
    const std::filesystem::path file = folder_ / (name + ".mkv");
    host::WriteClip(recipe, file);
    std::string bytes = ReadWholeFile(file);
    if (!announced.empty()) {
      bytes.replace(bytes.find(codec == "flac" ? "A_FLAC" : "A_AC3"), announced.size(), announced);
    }
    WriteWholeFile(file, bytes);
    const auto count = static_cast<int>(wall_.wall().channels.size());
    wall_.AddChannel(file.string(), {count % 3 * 104, count / 3 * 60, 100, 48});
    wall_.wall().channels.back().options.audio.meter = true;
    wall_.wall().channels.back().options.alarm.silence = {true, -60, kSecond, kSecond};
    return &wall_.wall().channels.back().options.audio;
  };
  constexpr const char* kStates[] = {"present",
                                     "off: audio is switched off",
                                     "absent: it has no audio",
                                     "no_track: it has no audio track 3 (of 1)",
                                     "undecodable: cannot decode",
                                     "undecodable: it cannot be decoded",
                                     "silent",
                                     "stopped"};
  const std::string tone = "sine=440:sample_rate=48000";
  clip("present", tone, "ac3", "");
  clip("off", tone, "ac3", "")->enabled = false;
  clip("absent", "", "", "");
  clip("third", tone, "ac3", "")->track = 3;
  clip("unknown", tone, "flac", "A_FLAX");
  clip("false", tone, "ac3", "A_DTS");
  clip("silent", "anullsrc=sample_rate=48000", "ac3", "");
  clip("stopped", tone + ":d=1", "ac3", "");
  const std::vector<Frame> frames = wall_.Render(4 * kSecond);
  std::set<std::string> captions;
  for (std::size_t i = 0; i < wall_.wall().channels.size(); ++i) {
    const host::config::Channel& channel = wall_.wall().channels[i];
    EXPECT_THAT(wall_.channels().Audio(channel.name).back(), testing::StartsWith(kStates[i]));
    EXPECT_EQ(wall_.channels().Alarms(channel.name).size(), i < 3 ? 0U : 1U) << channel.name;
    std::string caption;
    for (int y = channel.window.y + 24; y < channel.window.y + 48; ++y) {
      for (int x = channel.window.x + 12; x < channel.window.x + 100; ++x) {
        caption += static_cast<char>(wall_.Luma(frames.back(), x, y));
      }
    }
    captions.insert(caption);
  }
  EXPECT_EQ(captions.size(), 6U) << "none for the first two, the two undecodable ones alike";
}

// Its source has the wall's rate, so that the composer looks at no frame twice.
TEST_F(RenderTest, ShowsTheSizeOfAWindowAtWhateverMomentItIsShown) {
  const std::string clip = Clip("steady", "25", 100);
  wall_.AddChannel(clip, {100, 0, 64, 48});
  wall_.AddChannel(clip, {0, 100, 64, 48});
  wall_.wall().channels[0].name = "hidden now and then";
  wall_.wall().channels[0].selected = true;
  std::mt19937 random(7);
  constexpr std::size_t kKeptBack = 25;  // frames before the first one that is handed out
  for (int round = 0; round < 6; ++round) {
    wall_.wall().channels[0].options.enabled = round % 2 == 1;
    std::size_t sent = 0;
    std::map<std::int64_t, bool> shown{{0, round % 2 == 1}};  // by the first frame
    std::size_t changeAt = kKeptBack + 20 + 12 * static_cast<std::size_t>(round);
    bool enabled = round % 2 == 1;
    const std::vector<Frame> frames =
        wall_.Render(4 * kSecond, std::chrono::seconds(20), [&](host::WallSession& session) {
          if (sent == changeAt) {
            enabled = !enabled;
            changeAt += 1 + random() % (random() % 2 == 0 ? 4 : 40);
            const auto& channels = wall_.wall().channels;
            const auto from =
                session.Place({{enabled, channels[0].window, channels[0].options.colour, true},
                               {true, channels[1].window, channels[1].options.colour, false}});
            shown[from.value()] = enabled;
          }
          ++sent;
        });
    ASSERT_EQ(frames.size(), 100U) << "a selected window of unknown size stops the wall";
    for (std::size_t n = 2; n < frames.size(); ++n) {
      ASSERT_EQ(FrameNumber(wall_.Luma(frames[n], 132, 24)),
                std::prev(shown.upper_bound(static_cast<std::int64_t>(n + kKeptBack)))->second
                    ? FrameNumber(wall_.Luma(frames[n], 32, 124))
                    : -1)
          << "frame " << n << " of round " << round;
    }
  }
}

// Sizes, places and visibility of all windows change on one composed frame, whatever the rates of
// their sources: neither an old size at a new place, nor one window before another.
TEST_F(RenderTest, ChangesTheWholeLayoutOnOneFrame) {
  for (const char* const rate : {"25", "2", "50", "30000/1001"}) {
    wall_.AddChannel(Clip("rate" + std::to_string(wall_.wall().channels.size()), rate, 400),
                     {0, 0, 64, 48});
  }
  std::mt19937 random(11);
  const auto layout = [&] {
    std::vector<host::WindowState> windows;
    for (int i = 0; i < 4; ++i) {
      const int size = 2 + static_cast<int>(random() % 16);
      windows.push_back({random() % 4 != 0,
                         {i % 2 * 160 + 4, i / 2 * 120 + 4, 8 * size, 6 * size},
                         "#FFFFFF",
                         false});
    }
    return windows;
  };
  std::map<std::int64_t, std::vector<host::WindowState>> layouts{{0, layout()}};
  for (std::size_t i = 0; i < 4; ++i) {
    wall_.wall().channels[i].window = layouts[0][i].place;
    wall_.wall().channels[i].options.enabled = layouts[0][i].isShown;
  }
  std::size_t sent = 0;
  const std::vector<Frame> frames =
      wall_.Render(7 * kSecond, std::chrono::seconds(20), [&](host::WallSession& session) {
        if (sent++ % 7 == 6 && random() % 2 == 0) {
          const std::vector<host::WindowState> next = layout();
          layouts[session.Place(next).value()] = next;
        }
      });
  ASSERT_EQ(frames.size(), 175U);
  ASSERT_GT(layouts.size(), 8U);
  for (std::size_t n = 2; n < frames.size(); ++n) {
    constexpr std::int64_t kKeptBack = 25;  // frames before the first one that is handed out
    const auto in = std::prev(layouts.upper_bound(static_cast<std::int64_t>(n) + kKeptBack));
    for (const host::WindowState& window : in->second) {
      const auto& [x, y, width, height] = window.place;
      for (const auto& [left, top] : {std::pair(x, y),
                                      {x + width - 2, y},
                                      {x, y + height - 2},
                                      {x + width - 2, y + height - 2}}) {
        const int number = FrameNumber(wall_.Luma(frames[n], left, top));
        ASSERT_EQ(number >= 0, window.isShown)
            << "frame " << n << " of " << in->first << " at " << left << ", " << top;
      }
      ASSERT_EQ(wall_.Luma(frames[n], x + width, y + height / 2), 16) << "frame " << n;
      ASSERT_EQ(wall_.Luma(frames[n], x + width / 2, y + height), 16) << "frame " << n;
    }
  }
}

// The deinterlacer takes no frames of two lines.
TEST_F(RenderTest, FramesThatCannotBeConvertedCostNoOthers) {
  std::string stream;
  for (const auto& [size, frames] : {std::pair(48, 25), std::pair(2, 3), std::pair(48, 25)}) {
    const std::filesystem::path part = folder_ / "part.ts";
    WriteCountingClip(part, size, size, "25", frames);
    stream += ReadWholeFile(part);
  }
  WriteWholeFile(folder_ / "parts.ts", stream);
  wall_.AddChannel(folder_ / "parts.ts", {0, 0, 64, 64});
  wall_.wall().channels[0].options.deinterlace = host::config::DeinterlaceMode::kFrames;
  std::string course;  // bright after the first half of a part, dark before
  for (const Frame& frame : wall_.Render(3 * kSecond)) {
    const int luma = wall_.Luma(frame, 32, 32);
    const char now = luma >= 60 ? 'b' : luma < 40 ? 'd' : '-';
    course += now != '-' && (course.empty() || course.back() != now) ? std::string(1, now) : "";
  }
  EXPECT_THAT(course, testing::StartsWith("dbdb"));
}

TEST_F(RenderTest, DetachesAChannelThatStallsIndefinitely) {
  Pipe pipe(folder_ / "pipe");
  pipe.Open();
  wall_.AddChannel(pipe.path().string(), {0, 0, 64, 48});
  wall_.AddChannel(Clip("alive", "25", 50), {100, 0, 64, 48});
  const std::vector<Frame> frames = wall_.Render(2 * kSecond, std::chrono::milliseconds(200));
  EXPECT_EQ(frames.size(), 50U);
  EXPECT_GE(FrameNumber(wall_.Luma(frames.back(), 102, 2)), 20);
  EXPECT_FALSE(wall_.channels().Failure("pipe").empty());
}

}  // namespace
