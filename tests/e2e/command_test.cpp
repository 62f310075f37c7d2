#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/cli/demo/clip_writer.h"
#include "host/cli/wall_command.h"
#include "log/log_file.h"
#include "tests/e2e/wall_harness.h"
#include "tests/support/child_process.h"

namespace {

using host::kSecond;
using host::cli::ExitCode;
using testing::EndsWith;
using testing::HasSubstr;

class CommandTest : public e2e::WallTest {
 protected:
  // A rendering of one second, or a run; channels: files.
  ExitCode Run(const std::vector<std::string>& channels) {
    for (const std::string& channel : channels) {
      wall_.AddChannel(channel, {static_cast<int>(wall_.wall().channels.size()) * 70, 0, 64, 48});
    }
    command_.wall = wall_.wall();
    command_.graph.library = TAVREL_COMPOSER_LIBRARY;
    command_.record.seconds = 1;
    command_.record.snapshot = folder_ / "wall.png";
    command_.record.overwrite = true;
    host::cli::Streams streams{out_, err_};
    return RunWallCommand(command_, streams);
  }
  std::string Clip() {
    e2e::WriteCountingClip(folder_ / "clip.mkv", 64, 48, "25", 50);
    return (folder_ / "clip.mkv").string();
  }

  e2e::TestWall wall_{320, 240};
  host::cli::WallCommand command_;
  std::ostringstream out_;
  std::ostringstream err_;
};

TEST_F(CommandTest, AStrictRenderingFailsForAChannelThatCannotBeShown) {
  host::ClipRecipe recipe;
  recipe.audio = "sine=440";
  recipe.length = kSecond;
  host::WriteClip(recipe, folder_ / "audio.mkv");
  command_.strict = true;
  EXPECT_EQ(Run({Clip(), (folder_ / "audio.mkv").string()}), ExitCode::kDone) << err_.str();
  EXPECT_EQ(Run({(folder_ / "missing.mkv").string()}), ExitCode::kCouldNotStart);
  EXPECT_THAT(err_.str(), HasSubstr("channel \"missing\" could not be shown: no such file"));
  command_.strict = false;
  EXPECT_EQ(Run({}), ExitCode::kDone);
}

TEST_F(CommandTest, TheStandardOutputHoldsJsonLinesOnlyWhereTheyAreAskedFor) {
  command_.json = true;
  Run({Clip()});
  command_.live = true;
  Run({});
  command_.json = false;
  command_.events = true;
  Run({});
  std::istringstream lines(out_.str());
  std::vector<std::string> events;
  for (std::string line; std::getline(lines, line);) {
    events.push_back(nlohmann::json::parse(line).value("event", "rendered"));
  }
  EXPECT_EQ(events.front(), "rendered");
  EXPECT_THAT(events, testing::Contains("end"));
  EXPECT_THAT(err_.str(), HasSubstr("wall.png")) << "what a person reads";
}

TEST_F(CommandTest, ALogIsFollowedThroughItsWrapsAndIntoItsNextFileUntilASignal) {
  const std::string path = folder_ / "log";
  constexpr qorp::log::LogTime kTime{1763286194, 123};
  qorp::log::logfile_sink sink({3, 300, 0});
  sink.SetPath(path);
  sink.Write(1, kTime, "first");
  ChildProcess program({TAVREL_PROGRAM, "log", "--follow", path});
  const auto next = [&] { return program.ReadLine().value_or("it has ended"); };
  EXPECT_THAT(next(), EndsWith(" first"));
  for (int i = 0; i < 8; ++i) {
    const std::string line = "line " + std::to_string(i);
    sink.Write(1, kTime, line.c_str());
    EXPECT_THAT(next(), EndsWith(" " + line));
  }
  std::filesystem::remove(path);
  qorp::log::logfile_sink other({3, 300, 0});
  other.SetPath(path);
  other.Write(1, kTime, "another file");
  EXPECT_THAT(next(), EndsWith(" another file"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
