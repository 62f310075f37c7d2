// The messages of a running wall for people, programs and the service manager.
#include <array>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/cli/message_log.h"
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
using testing::ElementsAre;
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

TEST_F(Messages, ReachTheScreenAndTheLogFileUpToTheirLevels) {
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

// A name is resolved in the background; the wall starts without waiting.
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

TEST_F(Messages, LockTheirFileForOneWriterAndFollowItsPath) {
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

// Some messages contain text from streams.
TEST_F(Messages, ContainNoControlCharactersAndNoPartOfACharacter) {
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

TEST_F(Messages, ReportChangesOfChannelsAndOutputs) {
  MessageLog messages(streams, {});
  JsonLines events(out, false);
  config::Wall wall;
  wall.channels.resize(2);
  wall.channels[0].name = "A";
  wall.channels[1].name = "B";
  ChannelBoard board(wall, messages, events);
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

TEST_F(Messages, WipeTheProgressLine) {
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

TEST(ChannelBoardTest, KeepsTheStatesAndWritesEachChangeAsALine) {
  std::ostringstream out;
  std::ostringstream err;
  Streams streams{out, err};
  MessageLog messages(streams, {});
  JsonLines lines(out, true);
  const std::string b = "B \xff";  // not UTF-8
  config::Wall wall;
  wall.channels.resize(2);
  wall.channels[0].name = "A";
  wall.channels[1].name = b;
  ChannelBoard board(wall, messages, lines);
  board.ChannelFailed("A", "no data for 5 s", std::nullopt);
  board.ChannelChanged("A", {ChannelState::kHeld, "no data for 5 s", 12 * kSecond});
  board.ChannelChanged(b, {ChannelState::kLive, "", kSecond});
  board.AlarmChanged(b, {AlarmKind::kFreeze, true, 15 * kSecond + kMillisecond});
  board.AudioChanged("A", {AudioState::kNoTrack, "none", kSecond});
  lines.Finish();

  std::string events = out.str();
  for (std::size_t at = 0; (at = events.find("\"time\":")) != std::string::npos;) {
    events.erase(at, events.find(',', at) + 1 - at);
  }
  EXPECT_EQ(
      events,
      R"({"event":"channel","channel":"A","state":"held","reason":"no data for 5 s","since":12.0}
{"event":"channel","channel":"B �","state":"live","since":1.0}
{"event":"alarm","channel":"B �","alarm":"freeze","raised":true,"since":15.001}
{"event":"audio","channel":"A","state":"no_track","reason":"none","since":1.0}
)");

  WallStatus status;
  status.seconds = 12;
  status.counters.composed = 300;
  status.counters.late = 2;
  status.channels = board.entries();
  EXPECT_EQ(status.LiveLine(), "12.0 s, 300 frames, channels: 1 live; held: A; late 2, dropped 0");
  for (const char* const name : {"C", "D", "E"}) {
    status.channels.push_back(status.channels[0]);
    status.channels.back().name = name;
  }
  status.elapsed = 4;
  EXPECT_EQ(status.RenderingLine(),
            "12.0 s, 3.0 times as fast; channels: 1 live; held: A, C, D and 1 more");
  status.total = 35;
  EXPECT_THAT(status.RenderingLine(),
              testing::StartsWith("34 %, 12.0 of 35.0 s, 3.0 times as fast, 0:08 to go; "));
  const auto json = nlohmann::json::parse(status.JsonLine());
  EXPECT_EQ(json["channels"][0]["state"], "held");
  EXPECT_THAT(json["channels"][0]["alarms"], IsEmpty());
  EXPECT_EQ(json["channels"][0]["audio"]["state"], "no_track");
  EXPECT_EQ(json["channels"][1]["alarms"][0], "freeze");
}

TEST(ServiceStatusTest, IsReadyWithTheFirstFrameAndAliveAsLongAsFramesAreComposed) {
  const TemporaryFolder folder;
  const std::string path = folder / "notify";
  const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  // All messages that have come; a datagram on a local socket is there once it was sent.
  const auto messages = [&] {
    std::vector<std::string> all;
    std::array<char, 256> buffer{};
    for (ssize_t size = 0;
         (size = recv(manager, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
      all.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
    return all;
  };
  {
    ServiceStatus service(os::ServiceNotifier(path, std::chrono::seconds(2)));
    service.Report(0);
    EXPECT_THAT(messages(), IsEmpty());
    service.Report(1);
    EXPECT_THAT(messages(), ElementsAre("READY=1", "WATCHDOG=1"));
    service.Report(1);
    EXPECT_THAT(messages(), IsEmpty()) << "a wall that stands is not alive";
    service.Report(7);
    service.Say("9 live");
    EXPECT_THAT(messages(), ElementsAre("WATCHDOG=1", "STATUS=9 live"));
  }
  EXPECT_THAT(messages(), ElementsAre("STOPPING=1"));
  close(manager);
}

}  // namespace
}  // namespace host::cli
