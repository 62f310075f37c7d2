#include "host/cli/message_log.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/cli/output_messages.h"
#include "tests/support/datagram_receiver.h"
#include "tests/support/temporary_folder.h"

namespace host::cli {
namespace {

using qorp::log::kDebug;
using qorp::log::kError;
using qorp::log::kInfo;
using qorp::log::kWarning;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

class Messages : public testing::Test {
 protected:
  std::string FileOf(const wall::LogOptions& options, bool colour = false) {
    Streams streams{out, err, false, colour};
    MessageLog messages(streams, options);
    for (const int level : {kError, kWarning, kInfo, kDebug}) {
      messages.Say(level, "level " + std::to_string(level));
    }
    messages.Flush();
    return ReadWholeFile(folder / "log");
  }

  const TemporaryFolder folder;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(Messages, ReachTheScreenAndTheRecordUpToTheirLevels) {
  wall::LogOptions options;
  options.file = folder / "log";
  const std::string file = FileOf(options);
  EXPECT_THAT(err.str(), MatchesRegex(".{23} level 0\n"));
  EXPECT_THAT(file, HasSubstr(";0;level 0\r\n"));
  EXPECT_THAT(file, HasSubstr(";1;level 1\r\n"));
  EXPECT_THAT(file, Not(HasSubstr("level 2")));

  err.str("");
  options.level = kInfo;
  EXPECT_THAT(FileOf(options, true), EndsWith(";2;level 2\r\n"));
  EXPECT_THAT(err.str(), HasSubstr("\x1b[91m"));
  EXPECT_THAT(err.str(), HasSubstr("level 2\n"));
  EXPECT_THAT(err.str(), Not(HasSubstr("level 3")));
  EXPECT_THAT(out.str(), IsEmpty());
}

// A name is resolved beside the wall, which starts without it.
TEST_F(Messages, ReachASyslogServer) {
  Streams streams{out, err};
  wall::LogOptions options;
  for (const char* const host : {"127.0.0.1", "localhost"}) {
    const DatagramReceiver server;
    options.syslog = wall::Endpoint{host, server.Port()};
    MessageLog messages(streams, options);
    messages.Say(kError, "first");
    messages.Say(kWarning, "second");
    EXPECT_THAT(server.Receive(), HasSubstr(" 0000 first"));
    EXPECT_THAT(server.Receive(), HasSubstr(" 0001 second"));
  }
  options.syslog = wall::Endpoint{"nowhere.invalid", 514};
  FileOf(options);
  EXPECT_THAT(err.str(), HasSubstr("level 0"));
}

TEST_F(Messages, KeepTheirFileForOneWriterAndFollowItsPath) {
  Streams streams{out, err};
  wall::LogOptions options;
  options.file = folder / "log";
  MessageLog messages(streams, options);
  messages.Say(kError, "one");
  messages.Flush();
  try {
    MessageLog others(streams, options);
    ADD_FAILURE() << "two writers";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("is written by another program"));
  }
  std::filesystem::rename(folder / "log", folder / "log.1");
  messages.Say(kError, "two");
  messages.Flush();
  EXPECT_THAT(ReadWholeFile(folder / "log"), EndsWith(";0;two\r\n"));
  std::filesystem::remove(folder / "log");
  messages.Say(kError, "three");
  messages.Flush();
  EXPECT_THAT(ReadWholeFile(folder / "log"), EndsWith(";0;three\r\n"));
  EXPECT_THAT(ReadWholeFile(folder / "log.1"), EndsWith(";0;one\r\n"));
  EXPECT_THROW(MessageLog(streams, options), std::runtime_error) << "the new one is ours, too";
}

// What a stream says of itself is in some of them.
TEST_F(Messages, HoldNoControlCharactersAndNoHalfOfACharacter) {
  const DatagramReceiver server;
  wall::LogOptions options;
  options.file = folder / "log";
  options.syslog = wall::Endpoint{"127.0.0.1", server.Port()};
  Streams streams{out, err};
  MessageLog messages(streams, options);
  messages.Say(kError,
               "a\x1b]0;title\a\r\nb\xC2\x9B"
               "31m\xE2\x80\xAE\xFF");
  std::string umlauts = "x";
  for (int i = 0; i < 600; ++i) {
    umlauts += "\u00fc";
  }
  messages.Say(kError, umlauts);
  messages.Flush();
  for (const std::string& text : {err.str(), ReadWholeFile(folder / "log"), server.Receive()}) {
    EXPECT_THAT(text, HasSubstr("a ]0;title   b 31m \uFFFD"));
    EXPECT_THAT(text, Not(HasSubstr("\x1b")));
  }
  EXPECT_THAT(err.str(), HasSubstr("\u00fc\n"));
  EXPECT_THAT(ReadWholeFile(folder / "log"), HasSubstr("\u00fc\r\n"));
  const std::string sent = server.Receive();
  EXPECT_THAT(sent, EndsWith(std::string("\u00fc") + '\0'));
  EXPECT_GE(sent.size(), 1024U);
}

TEST_F(Messages, RefuseFilesThatCannotBeUsed) {
  Streams streams{out, err};
  WriteWholeFile(folder / "wall.toml", "[wall]\nwidth = 640\n");
  const auto refused = [&](const std::filesystem::path& file, const std::string& why) {
    wall::LogOptions options;
    options.file = file;
    try {
      MessageLog messages(streams, options);
      ADD_FAILURE() << file << " is taken";
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(why));
    }
  };
  refused(folder / "none/log", "its folder does not exist");
  refused(folder.Path(), "cannot be written: access denied");
  refused(folder / "wall.toml", "is no log file");
  EXPECT_EQ(ReadWholeFile(folder / "wall.toml"), "[wall]\nwidth = 640\n");
  wall::LogOptions same;
  same.file = folder / "both";
  same.perfFile = folder / "both";
  EXPECT_THROW(MessageLog(streams, same), std::runtime_error);
  std::filesystem::create_hard_link(folder / "both", folder / "link");
  same.perfFile = folder / "link";
  EXPECT_THROW(MessageLog(streams, same), std::runtime_error);
  // A log file whose header is damaged is one still.
  WriteWholeFile(folder / "log", "garbage!!!\r\n0;Sun Nov 16 09:43:14.123;1;0;old\r\n");
  wall::LogOptions damaged;
  damaged.file = folder / "log";
  EXPECT_THAT(FileOf(damaged), HasSubstr(";0;level 0\r\n"));
}

TEST_F(Messages, ContinueInANewFileWhenTheOldOneCannotBeContinued) {
  const std::string old = "0x0000000C\r\n;Sun Nov 16 09:43:14.123;1;0;partly overwritten\r\n";
  WriteWholeFile(folder / "log", old);
  WriteWholeFile(folder / "log.damaged-1", "older");
  wall::LogOptions options;
  options.file = folder / "log";
  const std::string file = FileOf(options);
  EXPECT_THAT(file, HasSubstr(";0;level 0\r\n"));
  EXPECT_THAT(file, HasSubstr("cannot be continued (invalid stoll argument): it was moved to"));
  EXPECT_THAT(file, HasSubstr(";1;level 1\r\n"));
  EXPECT_THAT(err.str(), HasSubstr("log.damaged-2, and a new one was begun\n"));
  EXPECT_EQ(ReadWholeFile(folder / "log.damaged-1"), "older");
  EXPECT_EQ(ReadWholeFile(folder / "log.damaged-2"), old);
}

TEST_F(Messages, TellOfAChannelWhenSomethingChanges) {
  Streams streams{out, err};
  MessageLog messages(streams, {});
  for (int attempt = 0; attempt < 3; ++attempt) {
    messages.ChannelFailed("A", "connection refused", std::chrono::milliseconds(250));
  }
  MediaInfo info;
  info.format = "mpegts";
  info.video = VideoInfo{};
  info.video->codec = "h264";
  info.noAudioReason = "there is none";
  messages.ChannelOpened("B", info);
  messages.ChannelOpened("A", info);
  messages.ChannelFailed("A", "no data for 5 s", std::nullopt);
  messages.ChannelEnded("B");
  messages.Flush();
  EXPECT_THAT(err.str(), MatchesRegex(".{23} channel \"A\": connection refused; it is tried again\n"
                                      ".{23} channel \"A\": opened \\(mpegts, h264 0x0, no audio "
                                      "\\(there is none\\)\\)\n"
                                      ".{23} channel \"A\": no data for 5 s\n"));
}

TEST_F(Messages, TellWhichFileAnOutputWrites) {
  Streams streams{out, err};
  MessageLog messages(streams, {});
  OutputMessages outputs(messages);
  using Opening = OutputObserver::Opening;
  outputs.OutputOpened("a.mkv", "a.mkv", Opening::kFirst);
  outputs.OutputOpened("a.mkv", "a-2.mkv", Opening::kBeside);
  outputs.OutputFailed("a.mkv", "no space", std::chrono::milliseconds(250));
  outputs.OutputFailed("a.mkv", "no space", std::chrono::milliseconds(500));
  outputs.OutputOpened("a.mkv", "a-3.mkv", Opening::kAgain);
  messages.Flush();
  EXPECT_THAT(err.str(), MatchesRegex(".{23} output a.mkv: a file of that name exists and is kept; "
                                      "written is a-2.mkv\n"
                                      ".{23} output a.mkv: no space; it is tried again\n"
                                      ".{23} output a.mkv: open again; written is a-3.mkv\n"));
}

TEST_F(Messages, WriteARecordForEveryPinAfterTheirNames) {
  wall::LogOptions options;
  options.perfFile = folder / "perf";
  Streams streams{out, err};
  MessageLog messages(streams, options);
  messages.logger().RegisterPin("late enough");
  messages.StartRecords();
  messages.logger().IncrementDecodedPictures();
  // A report without elapsed system time is skipped.
  while (ReadWholeFile(folder / "perf").find("\r\n1;") == std::string::npos) {
    messages.Flush();
  }
  EXPECT_THAT(ReadWholeFile(folder / "perf"),
              HasSubstr("NumPoliticChoices,buffer_full_late enough,LastDelta"));
}

TEST_F(Messages, WipeTheProgressLineTheyStandIn) {
  Streams streams{out, err, true};
  MessageLog messages(streams, {});
  messages.ShowProgress("10 %");
  messages.Say(kWarning, "not shown, so nothing is wiped");
  messages.Flush();
  EXPECT_EQ(err.str(), "\r\x1b[K10 %");
  messages.Say(kError, "shown");
  messages.Flush();
  EXPECT_THAT(err.str(), MatchesRegex("\r\x1b.K10 %\r\x1b.K.{23} shown\n"));
}

}  // namespace
}  // namespace host::cli
