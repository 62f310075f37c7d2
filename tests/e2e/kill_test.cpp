#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/e2e/audio_harness.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace {

struct Case {
  const char* container;
  int channels;
};

class KillTest : public testing::TestWithParam<Case> {
 protected:
  // Channels of every kind of audio, and one that never comes.
  std::filesystem::path WriteWall(int channels) {
    constexpr const char* kCodecs[] = {"aac", "ac3", "eac3", "mp2"};
    for (const char* const codec : kCodecs) {
      e2e::FlashClip clip;
      clip.codec = codec;
      e2e::WriteFlashClip(clip, folder_ / (std::string(codec) + ".mkv"));
    }
    std::string wall = "[wall]\nwidth = 320\nheight = 320\n";
    for (int i = 0; i < channels; ++i) {
      const std::string codec = channels > 4 ? "aac" : kCodecs[i];
      wall += "[[channel]]\nlabel = ''\nsource = '" + codec + ".mkv'\n";
    }
    wall += "[[channel]]\nlabel = ''\nsource = 'udp://127.0.0.1:9'\n";
    WriteWholeFile(folder_ / "wall.toml", wall);
    return folder_ / "wall.toml";
  }

  const TemporaryFolder folder_;
  std::mt19937 random_{20261125};
};

// How often each container is tried; 20 by hand.
int Kills() {
  const char* const kills = std::getenv("TAVREL_KILLS");
  return kills == nullptr ? 1 : std::atoi(kills);
}

TEST_P(KillTest, ARecordingPlaysToItsEndWheneverItsProgramIsKilled) {
  const std::string wall = WriteWall(GetParam().channels).string();
  double mostLost = 0;
  for (int kill = 0; kill < Kills(); ++kill) {
    const std::filesystem::path file =
        folder_ / ("wall" + std::to_string(kill) + "." + GetParam().container);
    const std::uint64_t enough = std::uniform_int_distribution<std::uint64_t>(20, 100)(random_);
    std::uint64_t written = 0;
    {
      ChildProcess program({TAVREL_PROGRAM, "run", wall, "--json", "-o", file.string()});
      while (written < enough) {
        const std::optional<std::string> line = program.ReadLine();
        ASSERT_TRUE(line.has_value()) << "it ended by itself";
        written = nlohmann::json::parse(*line)["outputs"][0]["frames"];
      }
      // The lines come once in a second; the kill comes at any moment.
      std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 1000));
      program.Signal(SIGKILL);
      ASSERT_EQ(program.Wait(), -SIGKILL);
    }
    EXPECT_EQ(e2e::DecodeWhole(file), "") << file;
    const e2e::Demuxed content = e2e::Demux(file);
    ASSERT_FALSE(content.empty());
    EXPECT_EQ(content.size(), GetParam().container == std::string("flv")
                                  ? 2U
                                  : static_cast<std::size_t>(GetParam().channels) + 2)
        << "every channel has its track, the one that never came, too";
    // What the program gave to the container, and what is in the file: one second may be missing.
    const double lost =
        static_cast<double>(written) / 25 - static_cast<double>(content[0].size()) / 25;
    mostLost = std::max(mostLost, lost);
    EXPECT_LE(lost, 1.0) << file << ", " << written << " frames were written";
    std::filesystem::remove(file);
  }
  std::printf("%s: %d kills, %.2f s of what was written lost at most\n", GetParam().container,
              Kills(), mostLost);
}

INSTANTIATE_TEST_SUITE_P(Containers, KillTest,
                         testing::Values(Case{"mkv", 4}, Case{"mp4", 4}, Case{"mov", 4},
                                         Case{"ts", 4}, Case{"flv", 4}, Case{"mp4", 35}),
                         [](const auto& test) {
                           return std::string(test.param.container) +
                                  std::to_string(test.param.channels);
                         });

}  // namespace
