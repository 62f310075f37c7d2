// Control of a running wall from outside: the local socket and tally, with a wall that only
// records.
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/cli/commands.h"
#include "host/cli/control_links.h"
#include "host/config/wall_file.h"
#include "host/control/socket_server.h"
#include "host/control/tally/tally_message.h"
#include "host/control/tally/tally_receiver.h"
#include "host/control/wall_control.h"
#include "platform/os/sockets.h"
#include "tests/support/local_socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait_until.h"

namespace host::control {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using Protocol = TallyParser::Protocol;

class RecordingExecutor final : public WallExecutor {
 public:
  std::int64_t Execute(const WallState&, const WallState&) override { return ++frame; }
  std::int64_t frame = 0;
};

config::Wall TwoChannels() {
  return config::ParseWall(
             "[[channel]]\nname='A'\nsource='udp://239.1.1.1:1'\ntally_index=7\n"
             "[[channel]]\nname='B'\nsource='udp://239.1.1.1:2'\n",
             "/")
      .wall;
}

// A client of the socket; carries out the control's requests while it waits for a line.
class Client {
 public:
  Client(const std::filesystem::path& path, WallControl& control)
      : socket_(os::Socket::ConnectLocal(path)), control_(control) {}

  void Send(const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
      const auto count = socket_.Send(std::string_view(text).substr(sent));
      ASSERT_TRUE(count.has_value());
      sent += *count;
    }
  }
  // Empty: the server has closed the connection.
  std::string Line() {
    bool isOpen = true;
    WaitUntil("a line from the wall", [&] {
      control_.Run();
      std::array<char, 4096> buffer{};
      const auto count = socket_.Receive(buffer);
      isOpen = count != 0;
      received_.append(buffer.data(), count.value_or(0));
      return !isOpen || received_.find('\n') != std::string::npos;
    });
    const std::size_t end = received_.find('\n');
    const std::string line = received_.substr(0, end);
    received_.erase(0, end == std::string::npos ? end : end + 1);
    return line;
  }
  // Without reading what the server has sent.
  bool IsDisconnected() {
    os::SocketPoll poll;
    std::vector<os::SocketPoll::Item> items{{&socket_, false}};
    poll.Wait(items, std::chrono::milliseconds(0));
    return items[0].hasEnded;
  }
  json Ask(const json& request) {
    Send(request.dump() + "\n");
    return json::parse(Line());
  }

 private:
  os::Socket socket_;
  WallControl& control_;
  std::string received_;
};

TEST(SocketServer, AnswersEveryRequestAndBoundsEveryClient) {
  const TemporaryFolder folder;
  const std::filesystem::path path = folder / "run/wall.sock";
  std::filesystem::create_directories(path.parent_path());
  {
    const os::Socket stale = os::Socket::ListenLocal(path);  // its file stays
  }
  RecordingExecutor executor;
  WallControl control(TwoChannels(), executor, {});
  SocketServer server(path, control);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
  EXPECT_THROW(SocketServer(path, control), std::runtime_error) << "a wall answers there";

  Client watcher(path, control);
  EXPECT_EQ(watcher.Ask({{"id", "w"}, {"watch", true}})["wall"]["channels"].size(), 2U);
  Client slow(path, control);
  slow.Send("{\"watch\":true}\n");
  Client client(path, control);
  const auto solo = [](const char* channel) {
    return json{{"id", 5}, {"commands", {{{"command", "solo"}, {"channel", channel}}}}};
  };
  EXPECT_EQ(client.Ask(solo("B")),
            json::parse(R"({"id":5,"ok":true,"version":2,"frame":1,"changed":true})"));
  EXPECT_THAT(watcher.Line(), HasSubstr(R"("solo":"B")"));
  client.Ask(json::parse(R"({"commands":[{"command":"set","channel":"A","options":{"k":"hidden"},
                                          "source":"rtsp://u:hidden@h/1"}]})"));
  EXPECT_THAT(watcher.Line(), AllOf(HasSubstr("rtsp://***@h/1"), Not(HasSubstr("hidden"))));
  EXPECT_EQ(
      client.Ask(solo("b"))["error"],
      json::parse(R"({"kind":"unknown","detail":"there is no channel \"b\"; did you mean \"B\"?",
                            "pointer":"/0/channel","nearest":"B"})"));
  json late = solo("A");
  late["if_version"] = 1;
  EXPECT_EQ(client.Ask(late)["error"]["kind"], "stale");
  EXPECT_EQ(client.Ask({{"get", "wall"}})["wall"]["solo"], "B");
  for (const std::string request : {"[]", "{}", "nonsense", "{\"get\":1}", "{\"commands\":7}",
                                    "{\"commands\":[],\"if_version\":-1}", "\xFF"}) {
    client.Send(request + "\n");
    EXPECT_EQ(json::parse(client.Line())["ok"], false) << request;
  }
  client.Send("{\"id\":" + std::string(400'000, '[') + "\n");
  EXPECT_THAT(client.Line(), HasSubstr("nested too deeply"));
  client.Send(std::string(SocketServer::kMaxRequest + 70'000, ' '));
  EXPECT_THAT(client.Line(), HasSubstr("at most 1000000 bytes"));
  EXPECT_EQ(client.Line(), "") << "and is disconnected";
  // Only the client that does not read its events is dropped.
  WaitUntil("the slow client is dropped", [&] {
    control.events().Publish("{\"x\":\"" + std::string(20'000, 'x') + "\"}");
    return control.events().dropped() > 0;
  });
  WaitUntil("it is disconnected", [&] { return slow.IsDisconnected(); });
  EXPECT_FALSE(watcher.IsDisconnected());
  control.Close();
}

TEST(Ctl, ReportsResultsAsTextAndExitCode) {
  const TemporaryFolder folder;
  const std::string socket = (folder / "w.sock").string();
  RecordingExecutor executor;
  cli::ControlLinks::Settings settings;
  settings.wall = TwoChannels();
  settings.wall.control.socket = socket;
  settings.live = [] {
    return json::parse(R"({"channels":{"B":{"state":"lost","alarms":["loss"]}}})");
  };
  std::optional<cli::ControlLinks> links(std::in_place, executor, settings);
  EXPECT_THROW(cli::ControlLinks(executor, settings), std::runtime_error) << "its socket is taken";
  const struct {
    std::vector<std::string> words;
    int code;
    std::string said;
  } cases[] = {
      {{"status"}, 0, "B: lost, alarm loss\n"},
      {{"ack", "B", "--who", "Ann", "--alarm", "loss"}, 0, "done with frame 1\n"},
      {{"health"}, 1, "B: lost\n"},
      {{"set", "A", "label=7 up", "alarm.freeze=false", "hold=2"}, 0, "done with frame 2\n"},
      {{"label", "A", ""}, 0, "done with frame 3\n"},
      {{"solo", "b"}, 1, "there is no channel \"b\"; did you mean \"B\"?\n"},
      {{"set", "A", "label"}, 64, "must be KEY=VALUE"},
      {{"solo"}, 64, "channel is required"},
      {{"slo"}, 64, "`tavrel ctl` has no command \"slo\"; did you mean \"solo\"?"},
      {{"solo", "--help"}, 0, "Usage: tavrel ctl solo"},
      {{"order", "B", "A", "--json"}, 0, R"("version":5,"frame":4)"},
      {{"list"}, 0, "B\tudp://239.1.1.1:2\nA\tudp://239.1.1.1:1\n"},
      {{"list"}, 69, "no wall answers at"},
  };
  for (const auto& one : cases) {
    if (one.code == 69) {
      links.reset();
    }
    std::ostringstream out;
    std::ostringstream err;
    int code = -1;
    os::Thread thread([&] {
      cli::Program program({out, err});
      program.Add<cli::CtlOptions>("ctl", "", cli::DefineCtl, cli::Ctl);
      std::vector<std::string> words{"ctl", "--socket", socket};
      words.insert(words.end(), one.words.begin(), one.words.end());
      code = static_cast<int>(program.Run(words));
    });
    while (!thread.Wait(links ? 0 : os::kInfinite)) {
      links->RunFor(10);
    }
    EXPECT_EQ(code, one.code) << one.words[0];
    EXPECT_THAT(out.str() + err.str(), HasSubstr(one.said));
  }
}

std::string Word(std::size_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}
std::string Packet(const std::string& messages, char flags = 0) {
  return Word(messages.size() + 4) + '\0' + flags + Word(0) + messages;
}
std::string Display(std::size_t index, std::size_t control, const std::string& text) {
  return Word(index) + Word(control) + Word(text.size()) + text;
}
// "display lamps text", lamps as digits or, without them, the tallies that are on as letters.
std::vector<std::string> Texts(const std::vector<TallyMessage>& messages) {
  std::vector<std::string> texts;
  for (const TallyMessage& message : messages) {
    std::string lamps;
    for (std::size_t i = 0; i < message.lamps.size(); ++i) {
      lamps += message.hasLamps ? std::to_string(static_cast<int>(message.lamps[i])) : "";
      lamps += i < 4 && message.bits[i] ? std::string(1, static_cast<char>('a' + i)) : "";
    }
    texts.push_back((message.isForAll ? "all " : std::to_string(message.display) + " ") + lamps +
                    " " + message.text);
  }
  return texts;
}

TEST(Tally, ReadsAllVersionsInAnyFragmentsAndSkipsInvalidBytes) {
  const std::string old =
      "\x87\x32"
      "Cam 7           ";
  const std::string four = old + "\x7F\x02\x1B\x20";
  const std::string five =
      Packet(Display(0x01FE, 0x1B, "Z\xC3\xBC") + Display(0xFFFF, 0xC0, std::string("A\0B", 3)));
  const std::string doubled = std::string(five).replace(five.find('\xFE'), 1, "\xFE\xFE");
  const std::string wide = Packet(Display(3, 0x02, std::string("\x1C\x04 \0\n\0", 6)), 1);
  const std::string M = "3 002000 \xD0\x9C";
  const struct {
    std::string bytes;
    bool isStream;
    std::vector<std::string> texts;
  } cases[] = {
      {old + "\xFE\x02x" + std::string(15, '\0'), false, {"7 b Cam 7", "126 b x"}},
      {"\x80\x0F"
       "ab",
       false,
       {"0 abcd ab"}},
      {four + four, false, {"7 12b3200 Cam 7", "7 12b3200 Cam 7"}},
      {five, false, {"510 123000 Z\xC3\xBC", "all 000000 A"}},
      {"\xFE\x02" + doubled + "\xFE\x03\xFE\x02" + wide + "\xFE\x02" + wide + "\xFE\x03",
       true,
       {"510 123000 Z\xC3\xBC", "all 000000 A", M, M}},
      {"noise\xFE\x02" + wide.substr(0, 9) + "\xFE\x02" + wide + "\r\n" + old,
       true,
       {M, "7 b Cam 7"}},
      {std::string(60, '\x01'), false, {}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(::testing::PrintToString(one.bytes));
    const std::vector<std::uint8_t> bytes(one.bytes.begin(), one.bytes.end());
    TallyParser whole(Protocol::kAuto);
    EXPECT_EQ(Texts(one.isStream ? whole.ReadStream(bytes) : whole.ReadDatagram(bytes)), one.texts);
    std::vector<TallyMessage> messages;
    TallyParser single(Protocol::kAuto);
    for (std::size_t i = 0; one.isStream && i < bytes.size(); ++i) {
      const auto more = single.ReadStream({&bytes[i], 1});
      messages.insert(messages.end(), more.begin(), more.end());
    }
    EXPECT_TRUE(!one.isStream || Texts(messages) == one.texts) << "byte for byte";
  }
}

TEST(Tally, SetsSelectionColourAndLabelWithBoundedRequests) {
  RecordingExecutor executor;
  // The border of the second window would leave the canvas.
  config::Wall wall = config::ParseWall(
                          "[[channel]]\nname='A'\nsource='udp://239.1.1.1:1'\ntally_index=7\n"
                          "window=[0,0,256,144]\n"
                          "[[channel]]\nname='B'\nsource='udp://239.1.1.1:2'\n"
                          "window=[1664,0,256,144]\n",
                          "/")
                          .wall;
  WallControl control(std::move(wall), executor, {});
  config::TallyOptions options;
  options.listen = {{false, {"127.0.0.1", 0}}};
  options.senders = {"127.0.0.0/8"};
  options.displays = {{2, "B"}};
  TallyReceiver receiver(options, control);
  const LocalSocket sender(SOCK_DGRAM);
  const auto send = [&](const std::string& packet) { sender.SendTo(receiver.ports()[0], packet); };
  // "selected colour label" of both. A datagram may be lost; the next one says the same.
  const auto expect = [&](const std::string& packet, const std::string& wanted) {
    WaitUntil(wanted.c_str(), [&] {
      send(packet);
      control.Run();
      std::string is;
      for (const auto& entry : control.state()->slots) {
        const config::Channel& channel = entry->settings;
        is += (channel.selected ? "red " : "") + channel.options.colour + " " + channel.label.text +
              ";";
      }
      return is == wanted;
    });
  };
  // Green, then amber; afterwards the label has its own colour again.
  expect(Packet(Display(2, 0x08, " ")), "#FFFFFF A;#00C000 B;");
  expect(Packet(Display(7, 0x01, "Kamera") + Display(2, 0x0C, " ") + Display(9, 1, "?")),
         "red #FFFFFF Kamera;#FFA000 B;");
  // A thousand changes while no request is carried out become one request for each channel.
  const std::int64_t before = executor.frame;
  for (std::size_t i = 0; i < 1000; ++i) {
    send(Packet(Display(0xFFFF, 1 + i % 2, "n" + std::to_string(i))));
  }
  expect(Packet(Display(0xFFFF, 0, "end")), "#FFFFFF end;#FFFFFF end;");
  EXPECT_LT(executor.frame - before, 100);
  // What is refused does not take the label with it.
  expect(Packet(Display(2, 0x01, "edge")), "#FFFFFF end;#FFFFFF edge;");
  control.Close();
}

}  // namespace
}  // namespace host::control
