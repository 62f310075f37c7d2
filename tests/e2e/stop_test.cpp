// Dead sources and readers hold up neither a wall nor its end, and no connection is kept in vain.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/audio_harness.h"
#include "tests/e2e/wall_harness.h"
#include "tests/support/child_process.h"
#include "tests/support/local_socket.h"
#include "tests/support/temporary_folder.h"

namespace {

using std::chrono::seconds;

class StopTest : public testing::Test {
 protected:
  void SetUp() override { e2e::WriteFlashClip({}, folder_ / "alive.mkv"); }
  std::string Pipe(const std::string& name) {
    const std::string path = folder_ / name;
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
  }
  void AddSource(const std::string& url) { wall_ += "[[channel]]\nsource = '" + url + "'\n"; }
  void AddOutput(const std::string& file) {
    wall_ += "[[output]]\nurl = '" + (folder_ / file).string() + "'\n";
  }
  std::vector<std::string> Command() {
    WriteWholeFile(folder_ / "wall.toml", wall_);
    return {TAVREL_PROGRAM, "run", folder_ / "wall.toml", "--json"};
  }
  // Waits until the first of its outputs, or all of them, have two seconds.
  static void WaitForFrames(ChildProcess& program, std::size_t outputs) {
    for (std::uint64_t least = 0; least < 50;) {
      const std::optional<std::string> line = program.ReadLine();
      ASSERT_TRUE(line.has_value()) << "it ended by itself";
      const auto status = nlohmann::json::parse(*line)["outputs"];
      least = UINT64_MAX;
      for (std::size_t i = 0; i < outputs; ++i) {
        least = std::min(least, status[i]["frames"].get<std::uint64_t>());
      }
    }
  }
  // Anything that delays the end would do so indefinitely.
  static void ExpectEnd(ChildProcess& program) {
    const auto begun = std::chrono::steady_clock::now();
    program.Signal(SIGTERM);
    EXPECT_EQ(program.WaitFor(seconds(60)), 0) << "it does not end, or not in good order";
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    std::printf("ended after %.1f s\n", taken.count());
  }

  const TemporaryFolder folder_;
  static constexpr const char* kWall =
      "[wall]\nwidth = 320\nheight = 320\n[[channel]]\nsource = 'alive.mkv'\n";
  std::string wall_ = kWall;
};

// Two names are never resolved: those calls take five times 30 s and cannot be ended.
TEST_F(StopTest, NineDeadSourcesHoldUpNeitherTheEndNorTheRecordings) {
  // They never answer.
  const LocalSocket server(SOCK_STREAM);
  const LocalSocket sender(SOCK_DGRAM);
  std::optional<LocalSocket> resolver;
  try {
    resolver.emplace(SOCK_DGRAM, "127.0.0.77", 53);
  } catch (const std::system_error&) {
  }
  AddSource("file:" + Pipe("one"));
  AddSource("concat:" + Pipe("two"));
  AddSource(Pipe("three"));
  for (const char* const scheme : {"http", "rtsp", "tcp"}) {
    AddSource(std::string(scheme) + "://" + server.address());
  }
  AddSource("udp://" + sender.address());
  AddSource("http://nowhere.example/");
  AddSource("tcp://nowhere.example:1234");
  for (const char* const file : {"wall.mkv", "wall.mp4", "wall.ts"}) {
    AddOutput(file);
  }
  std::vector<std::string> command = Command();
  const bool hasResolver = resolver.has_value() && std::system("unshare -rm true") == 0;
  if (hasResolver) {
    WriteWholeFile(folder_ / "resolv.conf",
                   "nameserver 127.0.0.77\noptions timeout:30 attempts:5\n");
    const std::string mount =
        "mount --bind " + (folder_ / "resolv.conf").string() + " /etc/resolv.conf && exec \"$@\"";
    command.insert(command.begin(), {"/usr/bin/unshare", "-rm", "/bin/sh", "-c", mount, "sh"});
  } else {
    std::printf("without rights for a silent resolver, names fail at once\n");
  }
  ChildProcess program(command);
  ASSERT_NO_FATAL_FAILURE(WaitForFrames(program, 3));
  ExpectEnd(program);
  for (const char* const file : {"wall.mkv", "wall.mp4", "wall.ts"}) {
    EXPECT_EQ(e2e::DecodeWhole(folder_ / file), "") << file;
    EXPECT_EQ(e2e::Demux(folder_ / file).size(), 11U) << file;
  }
}

// Messages and lines for programs go into one pipe that nobody reads after the first line.
TEST_F(StopTest, AReaderThatIsStuckHoldsUpNothing) {
  AddSource("missing.mkv");
  AddOutput("wall.mkv");
  std::vector<std::string> command = Command();
  command.emplace_back("-v");
  command.insert(command.begin(), {"/bin/sh", "-c", "exec \"$@\" 2>&1", "sh"});
  ChildProcess program(command);
  ASSERT_TRUE(program.ReadLine().has_value());
  while (program.OutputHasRoom()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto sizeOfRecording = [&] {
    std::error_code none;
    return std::filesystem::file_size(folder_ / "wall.mkv", none);
  };
  // The recording grows once a second, while a few more lines find no reader.
  for (int writes = 0; writes < 4; ++writes) {
    for (const auto before = sizeOfRecording(); sizeOfRecording() == before;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ExpectEnd(program);
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");
}

// A mount at a folder, until its end.
class DeadMount {
 public:
  explicit DeadMount(const std::filesystem::path& folder)
      : folder_(folder), program_({TAVREL_DEAD_MOUNT, "-f", folder}) {
    const std::string ready = folder / "open";
    for (int i = 0; i < 500 && !isThere_ && !program_.WaitFor(std::chrono::milliseconds(10)); ++i) {
      isThere_ = std::filesystem::exists(ready);
    }
  }
  ~DeadMount() {
    if (isThere_) {
      static_cast<void>(std::system(("fusermount3 -uz '" + folder_.string() + "'").c_str()));
    }
  }
  DeadMount(const DeadMount&) = delete;
  DeadMount& operator=(const DeadMount&) = delete;

  bool isThere() const { return isThere_; }

 private:
  const std::filesystem::path folder_;
  ChildProcess program_;
  bool isThere_ = false;
};

// Opening, creating, writing and closing never return.
TEST_F(StopTest, DeadMountsKeepAWallNeitherFromStartingNorFromEnding) {
  const std::filesystem::path dead = folder_ / "dead";
  std::filesystem::create_directory(dead);
  const DeadMount mount(dead);
  if (!mount.isThere()) {
    GTEST_SKIP() << "without the rights to mount a file system";
  }
  const std::string path = dead.string();
  wall_ = "[wall]\nwidth = 320\nheight = 320\nbackground = '" + path + "/open.png'\n" +
          "[[channel]]\nsource = 'alive.mkv'\nlabel_file = '" + path + "/open.txt'\n" +
          "[log]\nfile = '" + path + "/open.log'\n";
  AddSource(path + "/open.mkv");
  AddOutput("wall.mkv");
  for (const char* const file : {"dead/create.mkv", "dead/write.mkv", "dead/close.mkv"}) {
    AddOutput(file);
  }
  ChildProcess program(Command());
  ASSERT_NO_FATAL_FAILURE(WaitForFrames(program, 1));
  ExpectEnd(program);
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");

  // A rendering waits for its outputs, but not when it is to stop.
  wall_ = kWall;
  std::vector<std::string> command = Command();
  command[1] = "render";
  command.pop_back();
  command.insert(command.end(), {"-o", path + "/write-too.mkv", "--seconds", "1000"});
  ChildProcess rendering(command);
  EXPECT_EQ(rendering.WaitFor(seconds(5)), std::nullopt);
  rendering.Signal(SIGTERM);
  EXPECT_EQ(rendering.WaitFor(seconds(60)), 75);
}

// Whatever restarts the program has to know.
TEST_F(StopTest, ARunOfWhichNoOutputHasWrittenAnythingHasFailed) {
  const std::string unreachable = "[[output]]\nurl = 'tcp://127.0.0.1:1'\n";
  const auto codeWith = [&](const std::string& outputs) {
    const std::string wall = std::exchange(wall_, wall_ + outputs);
    std::vector<std::string> command = Command();
    command.insert(command.end(), {"--seconds", "1"});
    ChildProcess program(command);
    wall_ = wall;
    return program.WaitFor(seconds(60));
  };
  EXPECT_EQ(codeWith(unreachable), 75);
  EXPECT_EQ(codeWith(unreachable + "[[output]]\nurl = '" + (folder_ / "a.mkv").string() + "'\n"),
            0);
}

TEST_F(StopTest, OneSignalEndsARenderingIntoAPipeThatNobodyReads) {
  Command();
  ChildProcess program({TAVREL_PROGRAM, "render", folder_ / "wall.toml", "--seconds", "100000",
                        "--format", "mpegts", "-o", "-"});
  while (program.OutputHasRoom()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  program.Signal(SIGINT);
  EXPECT_NE(program.WaitFor(seconds(60)), std::nullopt);
}

class ReopenTest : public e2e::WallTest {};

// A camera with room for one session refuses the next one while the failed one is open.
TEST_F(ReopenTest, AFailedConnectionIsClosedBeforeTheDelayAndNotAfterIt) {
  using Clock = std::chrono::steady_clock;
  const LocalSocket server(SOCK_STREAM);
  e2e::TestWall wall(320, 240);
  wall.AddChannel("tcp://" + server.address(), {0, 0, 64, 48});
  const auto session = wall.MakeLive();
  session->Start();
  Clock::time_point failed;
  Clock::time_point closed;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const int connection = server.Accept();
    shutdown(connection, SHUT_WR);  // an end without data
    failed = Clock::now();
    char byte = 0;
    while (read(connection, &byte, 1) > 0) {
    }
    closed = Clock::now();
    close(connection);
  }
  // The delay is about a second by now.
  const int next = server.Accept();
  EXPECT_GT(Clock::now() - closed, closed - failed);
  session->Stop();
  close(next);
}

}  // namespace
