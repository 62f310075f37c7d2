#include "platform/os/standard_stream.h"

#include <csignal>
#include <ostream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temporary_folder.h"

namespace {

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
