#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/console.h"
#include "platform/os/datagram.h"
#include "platform/os/files.h"
#include "platform/os/process.h"
#include "platform/os/standard_stream.h"
#include "tests/support/datagram_receiver.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;

// A terminal.
class Terminal {
 public:
  Terminal() {
    if (::openpty(&read_, &write_, nullptr, nullptr, nullptr) != 0) {
      throw std::runtime_error("no terminal for the test");
    }
  }
  ~Terminal() {
    ::close(read_);
    ::close(write_);
  }
  int WriteEnd() const { return write_; }
  // Reads as much as is expected: a terminal may hand a line over in pieces.
  void Expect(const std::string& expected, const std::string& what = {}) const {
    std::string got;
    pollfd waiting{read_, POLLIN, 0};
    char c = 0;
    while (got.size() < expected.size() && ::poll(&waiting, 1, 10'000) > 0 &&
           ::read(read_, &c, 1) == 1) {
      got += c;
    }
    EXPECT_EQ(got, expected) << what;
  }

 private:
  int read_ = -1;
  int write_ = -1;
};

TEST(Console, ColoursLinesOnATerminalUnlessNoColorIsSet) {
  ::unsetenv("NO_COLOR");
  const Terminal terminal;
  {
    os::Console console(terminal.WriteEnd());
    console.WriteLine(12, "bad");
    terminal.Expect("\x1b[91mbad\r\n");
    console.WriteLine(14, "odd");
    console.WriteLine(7, "plain");
    console.WriteLine(10, "detail");
    terminal.Expect("\x1b[93modd\r\n\x1b[37mplain\r\n\x1b[92mdetail\r\n");
  }
  terminal.Expect("\x1b[0m", "the terminal's own colour was not restored");
  ::setenv("NO_COLOR", "1", 1);
  os::Console(terminal.WriteEnd()).WriteLine(12, "bad");
  ::unsetenv("NO_COLOR");
  terminal.Expect("bad\r\n");
}

TEST(DatagramSocket, SendsOnAfterADestinationThatDidNotListen) {
  std::uint16_t port = 0;
  {
    const DatagramReceiver gone;
    port = gone.Port();
  }
  const os::DatagramSocket socket("127.0.0.1", port);
  socket.Send("lost");
  EXPECT_TRUE(socket.Send("also lost"));
  EXPECT_FALSE(os::DatagramSocket().Send("nowhere"));
  EXPECT_FALSE(os::DatagramSocket().IsValid());
}

TEST(Volumes, AreTheMountedFileSystemsThatHoldFiles) {
  std::istringstream table(
      "21 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "22 21 0:5 / /proc rw - proc proc rw\n"
      "23 21 0:6 / /dev rw - devtmpfs udev rw\n"
      "24 21 8:2 / /media/my\\040disc\\134x rw shared:2 master:3 - vfat /dev/sdb1 rw\n"
      "25 21 8:3 / /media/odd\\9 rw - xfs /dev/sdc1 rw\n"
      "a damaged line\n"
      "26 21 8:1 /x / rw - ext4 /dev/sda1 rw\n");
  EXPECT_THAT(os::ParseVolumeRoots(table),
              ElementsAre("\\", "\\media\\my disc\\x\\", "\\media\\odd\\9\\"));
}

// The process really uses what it is made to use.
TEST(SystemStatistics, FollowWhatTheProcessDoes) {
  const os::SystemStatistics before = os::ReadSystemStatistics();
  constexpr std::size_t kBytes = 64 << 20;
  const std::string memory(kBytes, 'x');
  const std::ifstream one("/proc/self/stat");
  const std::ifstream two("/proc/self/stat");
  std::uint64_t sum = 0;
  os::SystemStatistics after;
  do {
    for (const char c : memory) {
      sum += static_cast<std::uint64_t>(c);
    }
    after = os::ReadSystemStatistics();
  } while (after.userTime == before.userTime);
  EXPECT_EQ(sum % 'x', 0U);
  EXPECT_GE(after.workingSet, before.workingSet + kBytes / 2);
  EXPECT_GE(after.privateBytes, before.privateBytes + kBytes / 2);
  EXPECT_EQ(after.handleCount, before.handleCount + 2);
  EXPECT_GT(after.processUserTime, before.processUserTime);
  EXPECT_GE(after.kernelTime, after.idleTime);
  EXPECT_GT(after.commitTotal, after.commitAvailable);
  EXPECT_GT(after.commitAvailable, 0U);
}

using std::chrono::milliseconds;

std::string ReadWhatIsThere(int descriptor) {
  std::string text;
  char buffer[4096];
  for (ssize_t count = 0; (count = read(descriptor, buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

// A pipe with a name, so that a reader can go and another one come.
TEST(StandardStream, WaitsForAReaderForALimitedTimeAndTriesAgain) {
  std::signal(SIGPIPE, SIG_IGN);
  const TemporaryFolder folder;
  const std::string path = folder / "pipe";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  const int writer = open(path.c_str(), O_WRONLY);
  const auto capacity = static_cast<std::size_t>(fcntl(writer, F_SETPIPE_SZ, 4096));
  os::StandardStream buffer(writer);
  std::ostream stream(&buffer);
  os::StandardStream::LimitWaiting(stream, milliseconds(10), milliseconds(0));

  const std::string line(capacity + 1000, 'x');
  stream << line << "\n";
  EXPECT_FALSE(os::FlushWithin(stream, milliseconds(0))) << "it is stuck in the middle";
  stream.clear();
  stream << "next\n" << std::flush;
  std::string got = ReadWhatIsThere(reader);
  EXPECT_TRUE(os::FlushWithin(stream, milliseconds(0)));
  got += ReadWhatIsThere(reader);
  EXPECT_EQ(got, line + "\nnext\n") << "nothing is lost that was waiting";

  // A stuck reader costs whole pieces of text only.
  std::string all;
  const std::string piece = std::string(9999, 'y') + "\n";
  for (int i = 0; i < 100; ++i) {
    stream.clear();
    stream << piece << std::flush;
  }
  for (bool done = false; !done; all += ReadWhatIsThere(reader)) {
    done = os::FlushWithin(stream, milliseconds(0));
  }
  EXPECT_LT(all.size(), 100 * piece.size());
  EXPECT_EQ(all.size() % piece.size(), 0U);

  stream << line;
  EXPECT_FALSE(os::FlushWithin(stream, milliseconds(0)));
  close(reader);
  stream.clear();
  EXPECT_FALSE(stream.flush().good()) << "nobody reads";
  reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  std::string last = ReadWhatIsThere(reader);
  stream.clear();
  stream << "again\n" << std::flush;
  EXPECT_TRUE(stream.good());
  last += ReadWhatIsThere(reader);
  EXPECT_TRUE(last.ends_with("x\nagain\n")) << "on a line of its own";
  close(reader);
  close(writer);
}

}  // namespace
