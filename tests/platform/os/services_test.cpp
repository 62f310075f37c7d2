#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/console.h"
#include "platform/os/files.h"
#include "platform/os/process.h"
#include "platform/os/sockets.h"
#include "tests/support/datagram_receiver.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;

TEST(Console, ColoursLinesOnATerminalUnlessNoColorIsSet) {
  int screen = -1;
  int terminal = -1;
  ASSERT_EQ(::openpty(&screen, &terminal, nullptr, nullptr, nullptr), 0);
  for (const auto& [noColor, expected] :
       {std::pair(false,
                  "\x1b[91mbad\r\n\x1b[93modd\r\n\x1b[37mplain\r\n\x1b[92mdetail\r\n\x1b[0m"),
        {true, "bad\r\nodd\r\nplain\r\ndetail\r\n"}}) {
    noColor ? ::setenv("NO_COLOR", "1", 1) : ::unsetenv("NO_COLOR");
    {
      os::Console console(terminal);
      for (const auto& [colour, text] :
           {std::pair(12, "bad"), {14, "odd"}, {7, "plain"}, {10, "detail"}}) {
        console.WriteLine(colour, text);
      }
    }
    // As much as is expected: a terminal may hand a line over in pieces.
    std::string got;
    pollfd waiting{screen, POLLIN, 0};
    for (char c = 0; got.size() < std::strlen(expected) && ::poll(&waiting, 1, 10'000) > 0 &&
                     ::read(screen, &c, 1) == 1;) {
      got += c;
    }
    EXPECT_EQ(got, expected);
  }
  ::unsetenv("NO_COLOR");
  ::close(screen);
  ::close(terminal);
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

// The process uses memory, descriptors and time, which the figures must show.
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
  os::StandardStream::LimitWaiting(stream, std::chrono::milliseconds(10),
                                   std::chrono::milliseconds(0));
  const auto flush = [&] { return os::FlushWithin(stream, std::chrono::milliseconds(0)); };
  const auto write = [&](const std::string& text) {
    stream.clear();
    stream << text << std::flush;
  };

  // A stuck reader costs whole pieces of text only, and nothing that was waiting.
  const std::string piece = std::string(capacity + 1000, 'x') + "\n";
  std::string all;
  for (int i = 0; i < 200; ++i) {
    write(piece);
  }
  EXPECT_FALSE(flush()) << "it is stuck in the middle";
  for (bool done = false; !done; all += ReadWhatIsThere(reader)) {
    done = flush();
  }
  EXPECT_GT(all.size(), piece.size());
  EXPECT_LT(all.size(), 200 * piece.size());
  EXPECT_EQ(all.size() % piece.size(), 0U);

  write(piece);
  EXPECT_FALSE(flush());
  close(reader);
  write("");
  EXPECT_FALSE(stream.good()) << "nobody reads";
  reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  std::string last = ReadWhatIsThere(reader);
  write("again\n");
  EXPECT_TRUE(stream.good());
  last += ReadWhatIsThere(reader);
  EXPECT_TRUE(last.ends_with("x\nagain\n")) << "on a line of its own";
  close(reader);
  close(writer);
}

}  // namespace
