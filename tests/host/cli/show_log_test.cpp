#include "host/cli/show_log.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <pthread.h>

#include "log/logfile_sink.h"
#include "tests/support/temporary_folder.h"

namespace host::cli {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr qorp::log::LogTime kTime{1763286194, 123};

// A stream buffer that another thread may look at.
class SharedBuffer final : public std::streambuf {
 public:
  bool WaitFor(const std::string& text) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Text().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      std::this_thread::yield();
    }
    return true;
  }
  std::string Text() const {
    const std::lock_guard guard(lock_);
    return text_;
  }

 private:
  int_type overflow(int_type c) override {
    const std::lock_guard guard(lock_);
    text_ += traits_type::to_char_type(c);
    return c;
  }
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    const std::lock_guard guard(lock_);
    text_.append(bytes, static_cast<std::size_t>(count));
    return count;
  }

  mutable std::mutex lock_;
  std::string text_;
};

class ShowingLogs : public testing::Test {
 protected:
  ExitCode Show(ShowLogOptions options = {}) {
    out.str("");
    err.str("");
    options.file = path;
    Streams streams{out, err};
    return ShowLog(options, streams);
  }

  const TemporaryFolder folder;
  const std::string path = folder / "log";
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(ShowingLogs, PrintsLinesUpToALevelAsTextOrJson) {
  qorp::log::logfile_sink sink({3, 0, 0});
  sink.SetPath(path);
  sink.Write(0, kTime, "bad; very");
  sink.Write(2, kTime, "news \xFF");
  EXPECT_EQ(Show(), ExitCode::kDone);
  EXPECT_THAT(out.str(), HasSubstr("[Level 0] Sun Nov 16"));
  EXPECT_THAT(out.str(), HasSubstr(".123 bad; very\n[Level 2]"));
  EXPECT_EQ(Show({.file = {}, .level = 1}), ExitCode::kDone);
  EXPECT_THAT(out.str(), Not(HasSubstr("news")));
  EXPECT_EQ(Show({.file = {}, .json = true}), ExitCode::kDone);
  const auto line = nlohmann::json::parse(out.str().substr(out.str().find('\n')));
  EXPECT_EQ(line["number"], 1);
  EXPECT_EQ(line["level"], 2);
  EXPECT_EQ(line["milliseconds"], 1763286194123);
  EXPECT_EQ(line["text"], "news \uFFFD");
  EXPECT_THAT(err.str(), IsEmpty());
}

TEST_F(ShowingLogs, SaysWhyAFileCannotBePrinted) {
  const auto refused = [&](const std::string& why) {
    EXPECT_EQ(Show(), ExitCode::kCouldNotStart);
    EXPECT_THAT(err.str(), HasSubstr(why));
    EXPECT_THAT(out.str(), IsEmpty());
  };
  refused(path + ": no such file");
  WriteWholeFile(path, "");
  refused("it has no header");
  WriteWholeFile(path, "[wall]\nwidth = 640\n");
  refused("does not begin with a header such as 0x0000002A");
  WriteWholeFile(path, "0x00000FFF\r\n7;Sun Nov 16 09:43:14.123;5;1;left\r\n");
  refused("its header names a place that is not in the file, which has 48 bytes");
  EXPECT_EQ(Show({.file = {}, .salvage = true}), ExitCode::kDone);
  EXPECT_EQ(out.str(), "[Level 1] Sun Nov 16 09:43:14.123 left\n");
}

TEST_F(ShowingLogs, FollowsAFileUntilItIsToldToStop) {
  qorp::log::logfile_sink sink({3, 300, 0});
  sink.SetPath(path);
  sink.Write(1, kTime, "first");
  SharedBuffer shown;
  SharedBuffer told;
  std::ostream shownStream(&shown);
  std::ostream toldStream(&told);
  Streams streams{shownStream, toldStream};
  ShowLogOptions options;
  options.file = path;
  options.follow = true;
  std::thread follower([&] { EXPECT_EQ(ShowLog(options, streams), ExitCode::kDone); });
  EXPECT_TRUE(shown.WaitFor(" first\n")) << "what is there was not printed";
  for (int i = 0; i < 8; ++i) {
    sink.Write(1, kTime, ("line " + std::to_string(i)).c_str());
    EXPECT_TRUE(shown.WaitFor(" line " + std::to_string(i) + "\n")) << "the line was not followed";
  }
  std::filesystem::remove(path);
  EXPECT_TRUE(told.WaitFor("no such file; waiting for it")) << "the end of the file was not told";
  qorp::log::logfile_sink other({3, 300, 0});
  other.SetPath(path);
  other.Write(1, kTime, "anew");
  EXPECT_TRUE(shown.WaitFor(" anew\n")) << "the new file was not followed";
  // As in the program, where it is the thread that waits for it that a signal strikes.
  ::pthread_kill(follower.native_handle(), SIGTERM);
  follower.join();
  EXPECT_THAT(shown.Text(), EndsWith(" anew\n"));
}

}  // namespace
}  // namespace host::cli
