#include "host/cli/message_log.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/cli/wall_status.h"
#include "tests/support/datagram_receiver.h"
#include "tests/support/temporary_folder.h"

namespace host::cli {
namespace {

using qorp::log::kDebug;
using qorp::log::kError;
using qorp::log::kInfo;
using qorp::log::kWarning;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

class Messages : public testing::Test {
 protected:
  Messages() { options.file = folder / "log"; }
  // The log file after a line of every level.
  std::string Written() {
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
  Streams streams{out, err};
  config::LogOptions options;
};

TEST_F(Messages, ReachTheScreenAndTheRecordUpToTheirLevels) {
  EXPECT_THAT(Written(), AllOf(HasSubstr(";0;level 0\r\n"), HasSubstr(";1;level 1\r\n"),
                               Not(HasSubstr("level 2"))));
  EXPECT_THAT(err.str(), MatchesRegex(".{23} level 0\n"));
  err.str("");
  options.level = kInfo;
  streams.colour = true;
  EXPECT_THAT(Written(), EndsWith(";2;level 2\r\n"));
  EXPECT_THAT(err.str(),
              AllOf(HasSubstr("\x1b[91m"), HasSubstr("level 2\n"), Not(HasSubstr("level 3"))));
  EXPECT_THAT(out.str(), IsEmpty());
}

// A name is resolved beside the wall, which starts without it.
TEST_F(Messages, ReachASyslogServer) {
  for (const char* const host : {"127.0.0.1", "localhost"}) {
    const DatagramReceiver server;
    options.syslog = config::Endpoint{host, server.Port()};
    MessageLog messages(streams, options);
    messages.Say(kError, "first");
    messages.Say(kWarning, "second");
    EXPECT_THAT(server.Receive(), HasSubstr(" 0000 first"));
    EXPECT_THAT(server.Receive(), HasSubstr(" 0001 second"));
  }
  options.syslog = config::Endpoint{"nowhere.invalid", 514};
  Written();
  EXPECT_THAT(err.str(), HasSubstr("level 0"));
}

TEST_F(Messages, KeepTheirFileForOneWriterAndFollowItsPath) {
  MessageLog messages(streams, options);
  messages.Say(kError, "one");
  messages.Flush();
  EXPECT_THAT(
      [&] { MessageLog(streams, options); },
      testing::ThrowsMessage<std::runtime_error>(HasSubstr("is written by another program")));
  std::filesystem::rename(folder / "log", folder / "log.1");
  messages.Say(kError, "two");
  messages.Flush();
  EXPECT_THAT(ReadWholeFile(folder / "log"), EndsWith(";0;two\r\n"));
  EXPECT_THAT(ReadWholeFile(folder / "log.1"), EndsWith(";0;one\r\n"));
  EXPECT_THROW(MessageLog(streams, options), std::runtime_error) << "the new one is ours, too";
}

// What a stream says of itself is in some of them.
TEST_F(Messages, HoldNoControlCharactersAndNoHalfOfACharacter) {
  const DatagramReceiver server;
  options.syslog = config::Endpoint{"127.0.0.1", server.Port()};
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
    EXPECT_THAT(text, AllOf(HasSubstr("a ]0;title   b 31m \uFFFD"), Not(HasSubstr("\x1b"))));
  }
  EXPECT_THAT(err.str(), HasSubstr("\u00fc\n"));
  EXPECT_THAT(ReadWholeFile(folder / "log"), HasSubstr("\u00fc\r\n"));
  const std::string sent = server.Receive();
  EXPECT_THAT(sent, EndsWith(std::string("\u00fc") + '\0'));
  EXPECT_GE(sent.size(), 1024U);
}

TEST_F(Messages, RefuseFilesThatCannotBeUsed) {
  const std::string wall = "[wall]\nwidth = 640\n";
  WriteWholeFile(folder / "wall.toml", wall);
  WriteWholeFile(folder / "both", "");
  std::filesystem::create_hard_link(folder / "both", folder / "link");
  for (const auto& [file, perfFile, why] :
       {std::tuple(folder / "none/log", std::filesystem::path(), "its folder does not exist"),
        {folder.Path(), "", "cannot be written: access denied"},
        {folder / "wall.toml", "", "is no log file"},
        {folder / "both", folder / "both", ""},
        {folder / "both", folder / "link", ""}}) {
    options.file = file;
    options.perfFile = perfFile;
    EXPECT_THAT([&] { MessageLog(streams, options); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr(why)));
  }
  EXPECT_EQ(ReadWholeFile(folder / "wall.toml"), wall);
}

TEST_F(Messages, ContinueInANewFileWhenTheOldOneCannotBeContinued) {
  const std::string old = "0x0000000C\r\n;Sun Nov 16 09:43:14.123;1;0;partly overwritten\r\n";
  WriteWholeFile(folder / "log", old);
  WriteWholeFile(folder / "log.damaged-1", "older");
  EXPECT_THAT(Written(),
              AllOf(HasSubstr(";0;level 0\r\n"), HasSubstr(";1;level 1\r\n"),
                    HasSubstr("cannot be continued (invalid stoll argument): it was moved to")));
  EXPECT_THAT(err.str(), HasSubstr("log.damaged-2, and a new one was begun\n"));
  EXPECT_EQ(ReadWholeFile(folder / "log.damaged-1"), "older");
  EXPECT_EQ(ReadWholeFile(folder / "log.damaged-2"), old);
}

TEST_F(Messages, TellOfAChannelAndAnOutputWhenSomethingChanges) {
  MessageLog messages(streams, {});
  JsonLines events(out, false);
  std::vector<config::Channel> channels(2);
  channels[0].name = "A";
  channels[1].name = "B";
  ChannelBoard board(channels, messages, events);
  OutputMessages outputs(messages);
  const std::chrono::milliseconds soon(250);
  MediaInfo info;
  info.format = "mpegts";
  info.video = VideoInfo{};
  for (int attempt = 0; attempt < 3; ++attempt) {
    board.ChannelFailed("A", "connection refused", soon);
    outputs.OutputFailed("a.mkv", "no space", soon);
  }
  board.ChannelOpened("B", info);
  board.ChannelOpened("A", info);
  board.ChannelFailed("A", "no data for 5 s", std::nullopt);
  outputs.OutputOpened("a.mkv", "a-3.mkv", OutputObserver::Opening::kAgain);
  messages.Flush();
  EXPECT_THAT(err.str(), MatchesRegex(".{23} channel \"A\": connection refused; it is tried again\n"
                                      ".{23} output a.mkv: no space; it is tried again\n"
                                      ".{23} channel \"A\": opened [^\n]*\n"
                                      ".{23} channel \"A\": no data for 5 s\n"
                                      ".{23} output a.mkv: open again; written is a-3.mkv\n"));
}

TEST_F(Messages, WipeTheProgressLineTheyStandIn) {
  streams.progress = true;
  {
    MessageLog messages(streams, {});
    messages.ShowProgress("10 %");
    messages.ShowProgress("10 %");
    messages.Say(kWarning, "not shown, so nothing is wiped");
    messages.Flush();
    EXPECT_EQ(err.str(), "\r\x1b[K10 %");
    messages.Say(kError, "shown");
    messages.Flush();
    EXPECT_THAT(err.str(), MatchesRegex("\r\x1b.K10 %\r\x1b.K.{23} shown\n"));
    err.str("");
    messages.ShowProgress("20 %");
  }
  EXPECT_EQ(err.str(), "\r\x1b[K20 %\r\x1b[K");
  ProgressLine(err, true).Show("\u00fc0 %", 2);
  EXPECT_THAT(err.str(), EndsWith("\r\x1b[K\u00fc0\r\x1b[K"));
  err.str("");
  ProgressLine(err, false).Show("10 %", 79);
  EXPECT_THAT(err.str(), IsEmpty()) << "nobody watches";
}

}  // namespace
}  // namespace host::cli
