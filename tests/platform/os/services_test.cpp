#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include "platform/os/console.h"
#include "platform/os/datagram.h"
#include "platform/os/files.h"
#include "platform/os/process.h"
#include "tests/support/datagram_receiver.h"

namespace {

using testing::ElementsAre;

// Both ends of a pipe or of a terminal.
class Line {
 public:
  explicit Line(bool terminal) {
    int ends[2];
    const int result = terminal ? ::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr)
                                : ::pipe(static_cast<int*>(ends));
    if (result != 0) {
      throw std::runtime_error("no pipe or terminal for the test");
    }
    read_ = ends[0];
    write_ = ends[1];
  }
  ~Line() {
    ::close(read_);
    ::close(write_);
  }
  int WriteEnd() const { return write_; }
  // Reads as much as is expected: a terminal may hand a line over in pieces.
  void Expect(const std::string& expected, const std::string& what = {}) const {
    std::string got;
    pollfd waiting{read_, POLLIN, 0};
    while (got.size() < expected.size() && ::poll(&waiting, 1, 10'000) > 0) {
      std::array<char, 1000> buffer;
      const ssize_t count = ::read(read_, buffer.data(), buffer.size());
      if (count <= 0) {
        break;
      }
      got.append(buffer.data(), static_cast<std::size_t>(count));
    }
    EXPECT_EQ(got, expected) << what;
  }

 private:
  int read_;
  int write_;
};

TEST(Console, ColoursLinesOnATerminalUnlessNoColorIsSet) {
  ::unsetenv("NO_COLOR");
  const Line terminal(true);
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
  const Line pipe(false);
  os::Console(pipe.WriteEnd()).WriteLine(12, "bad");
  pipe.Expect("bad\n");
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

}  // namespace
