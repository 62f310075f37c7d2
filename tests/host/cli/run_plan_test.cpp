// What run, render and demo refuse before they open anything.
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/cli/message_log.h"
#include "host/cli/program.h"
#include "host/cli/run.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temporary_folder.h"

namespace host::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(RunPlan, RefusesWhatWouldLoseAFileOrMixTwoStreams) {
  const TemporaryFolder folder;
  WriteWholeFile(folder / "clip.mkv", "clip");
  WriteWholeFile(folder / "there.mkv", "old");
  WriteWholeFile(folder / "there.png", "old");
  WriteWholeFile(folder / "wall.toml",
                 "[[channel]]\nname = 'A'\nsource = 'clip.mkv'\n[[output]]\nurl = 'out.mkv'\n");
  const std::string wall = (folder / "wall.toml").string();
  const auto at = [&](const char* name) { return (folder / name).string(); };
  struct Case {
    const char* command;
    std::vector<std::string> arguments;
    std::string said;
  };
  const Case cases[] = {
      {"run",
       {"-o", at("clip.mkv")},
       "is the same file as the source of channel \"A\" (\"" + at("clip.mkv") +
           "\", wall.toml:3:10)"},
      {"run",
       {"--snapshot", at("./out.mkv")},
       "--snapshot (\"" + at("./out.mkv") + "\") is the same file as output 1 (\"" + at("out.mkv") +
           "\", wall.toml:5:7)"},
      {"run", {"--log-file", wall}, "is the same file as the wall file"},
      {"run",
       {"--perf-file", at("x"), "--log-file", at("x")},
       "--perf-file (\"" + at("x") + "\") is the same file as --log-file"},
      {"run",
       {"-o", "-", "--format", "mpegts", "--json"},
       "--json and --events write lines to the standard output"},
      {"render", {"-o", "-"}, "--output \"-\" does not tell the container"},
      {"render",
       {"-o", at("a.mkv"), "-o", at("b.ts"), "--format", "mpegts"},
       "--format \"mpegts\" is used by no output"},
      {"render",
       {"-o", at("there.mkv")},
       "there.mkv\" exists; name another file, or replace it with --overwrite"},
      {"render", {"-o", at("new.mkv"), "--snapshot", at("there.png")}, "there.png\" exists"},
      {"render",
       {"--seconds=nan"},
       "--seconds: must be seconds, from 0.001 to 1000000000, not nan"},
      {"render",
       {"--snapshot-at", "-.5"},
       "--snapshot-at: must be seconds, from 0 to 1000000000, not -.5"},
  };
  for (const Case& c : cases) {
    std::ostringstream out;
    std::ostringstream err;
    Program program({out, err});
    program.Add<RunOptions>("run", "", DefineRun, cli::Run);
    program.Add<RunOptions>("render", "", DefineRender, cli::Render);
    std::vector<std::string> arguments = {c.command, wall};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    EXPECT_EQ(program.Run(arguments), ExitCode::kUsage) << c.said;
    EXPECT_THAT(err.str(), HasSubstr(c.said));
    EXPECT_EQ(out.str(), "");
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 4)
      << "nothing was created";
  EXPECT_EQ(ReadWholeFile(folder / "there.mkv"), "old");
}

TEST(ComposerLog, TakesTheFirstTwoFixesOfAChannelForItsStart) {
  RecordingLogger logger;
  ComposerLog log(logger);
  for (const int channel : {3, 3, 12, 3}) {
    log.log(qorp::log::kWarning, "Composer audio/video #%d resynchronizes (-)", channel);
  }
  log.log(qorp::log::kWarning, "Composer audio/video #%d resynchronizes (+) (%d)", 5, 78);
  using Line = RecordingLogger::Line;
  EXPECT_THAT(logger.Lines(),
              ElementsAre(Line{2, "Composer audio/video #3 resynchronizes (-)"},
                          Line{2, "Composer audio/video #3 resynchronizes (-)"},
                          Line{2, "Composer audio/video #12 resynchronizes (-)"},
                          Line{1, "Composer audio/video #3 resynchronizes (-)"},
                          Line{1, "Composer audio/video #5 resynchronizes (+) (78)"}));
}

}  // namespace
}  // namespace host::cli
