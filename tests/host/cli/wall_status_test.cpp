// What a running wall tells programs and the service manager.
#include "host/cli/wall_status.h"

#include <array>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/temporary_folder.h"

namespace host::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ChannelBoardTest, KeepsTheStatesAndWritesEachChangeAsALine) {
  std::ostringstream out;
  std::ostringstream err;
  Streams streams{out, err};
  MessageLog messages(streams, {});
  JsonLines lines(out, true);
  const std::string b = "B \xff";  // not UTF-8
  std::vector<config::Channel> channels(2);
  channels[0].name = "A";
  channels[1].name = b;
  ChannelBoard board(channels, messages, lines);
  board.ChannelFailed("A", "no data for 5 s", std::nullopt);
  board.ChannelChanged("A", {ChannelState::kHeld, "no data for 5 s", 12 * kSecond});
  board.ChannelChanged(b, {ChannelState::kLive, "", kSecond});
  board.AlarmChanged(b, {AlarmKind::kFreeze, true, 15 * kSecond + kMillisecond});
  board.AudioChanged("A", {AudioState::kNoTrack, "none", kSecond});
  lines.Finish();

  const std::regex time(R"("time":[^,}]*,?)");
  EXPECT_EQ(
      std::regex_replace(out.str(), time, ""),
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
  // What has come; a datagram on a local socket is there once it was sent.
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
