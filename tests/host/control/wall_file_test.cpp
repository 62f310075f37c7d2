#include "host/config/wall_file.h"

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/control/command.h"
#include "host/control/saved_wall.h"
#include "tests/support/temporary_folder.h"

namespace host::control {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The text of the file after the commands.
std::string Saved(const std::string& text, const char* commands) {
  const config::WallFile file = config::ParseWall(text, "/walls");
  WallState state = WallState::Of(file.wall);
  CommandContext context{state, "/walls", {}};
  Carry(json::parse(commands), context);
  return config::EditWall(text, "/walls", WallOf(state, file.wall));
}

constexpr const char* kWall = R"(# The wall of "Gate 4" é
[wall]   # canvas
spare = 3

# cameras

# first
[[channel]]
name = 'A'         # its name
source = "udp://239.1.1.1:1"
alarm.black = { after = 5, level = 10 } # é
options = { z = 1, "a b" = '''
[[channel]] # no header
''' }
# label = "not yet"

[[channel]]
source = "clips/b.mp4"
audio = false
[channel.alarm.loss]
enabled = true

[[output]]
url = "-"
format = "mpegts")";

TEST(WallFileWriter, ChangesOnlyWhatDiffers) {
  std::string expected = Replaced(kWall, "'A' ", "\"A \\\"1\\\"\" ");
  expected = Replaced(expected, "= 3\n", "= 3\nlayout = \"1+5\"\n");
  expected = Replaced(expected, "after = 5,", "after = 2.5,");
  expected = Replaced(expected, "''' }\n", "''', y = \"2\" }\nalarm.freeze = false\n");
  expected = Replaced(expected, "clips/b.mp4", "/else/c.mp4");
  expected = Replaced(expected, "= false\n[", "= { enabled = true, track = 2 }\n[");
  expected =
      Replaced(expected, "= true\n\n",
               "= false\n\n[[channel]]\nname = \"New\"\nsource = \"n.mp4\"\nlabel = \"\"\n\n");
  for (const char* const eol : {"\n", "\r\n"}) {
    EXPECT_EQ(Saved(Replaced(kWall, "\n", eol), R"([
{"command":"set","channel":"A","name":"A \"1\"","options":{"y":2}},
{"command":"set","channel":"A \"1\"","alarm":{"black":{"after":2.5,"level":10},"freeze":false}},
{"command":"set","channel":"Channel 2","audio":{"enabled":true,"track":2},"source":"/else/c.mp4",
 "alarm":{"loss":false}},
{"command":"add","name":"New","source":"n.mp4","label":""},
{"command":"layout","layout":"1+5"}, {"command":"solo","channel":"New"}])"),
              Replaced(expected, "\n", eol));
  }
  // The comments of a channel are removed with it, and move with it; a moved one keeps its name.
  EXPECT_THAT(
      Saved(kWall, R"([{"command":"add","name":"New","source":"n.mp4"},
{"command":"order","channels":["New","Channel 2"]}, {"command":"remove","channel":"A"}])"),
      HasSubstr("# cameras\n\n[[channel]]\nname = \"New\"\nsource = \"n.mp4\"\n\n[[channel]]\n"
                "source = \"clips/b.mp4\"\naudio = false\n[channel.alarm.loss]\n"));
  EXPECT_THAT(
      Saved(kWall, R"([{"command":"swap","channel":"A","with":"Channel 2"}])"),
      HasSubstr("\n# cameras\n\n[[channel]]\nsource = \"clips/b.mp4\"\naudio = false\nname = "
                "\"Channel 2\"\n[channel.alarm.loss]\nenabled = true\n\n# first\n"));
  EXPECT_EQ(Saved("\xEF\xBB\xBFwall.layout = '2x2'\n[[channel]]\nsource = 'a.ts'",
                  R"([{"command":"layout","layout":"3x3"}])"),
            "\xEF\xBB\xBFwall.layout = \"3x3\"\n[[channel]]\nsource = 'a.ts'");
}

TEST(WallFileWriter, WritesEveryStateSoThatItIsReadBack) {
  const std::vector<std::string> commands{
      R"({"command":"set","channel":"$","name":"N1"})",
      R"({"command":"set","channel":"$","name":"$ ü\n","tally_index":3})",
      R"({"command":"set","channel":"$","source":"../b.ts","decode":"keyframes"})",
      R"({"command":"set","channel":"$","label":""})",
      R"({"command":"set","channel":"$","label":"N1"})",
      R"({"command":"set","channel":"$","label_file":"l.txt"})",
      R"({"command":"set","channel":"$","label_service":true})",
      R"({"command":"set","channel":"$","window":[8,8,99,50]})",
      R"({"command":"set","channel":"$","hold":0.25,"options":{"b c":true}})",
      R"({"command":"set","channel":"$","audio":false})",
      R"({"command":"set","channel":"$","audio":{"language":"fra","meter":false}})",
      R"({"command":"set","channel":"$","alarm":{"freeze":{"after":0.1},"silence":false}})",
      R"({"command":"add","source":"/x.ts"})",
      R"({"command":"remove","channel":"$"})",
      R"({"command":"swap","channel":"$","with":"%"})",
      R"({"command":"select","channel":"$","add":true})",
      R"({"command":"layout","layout":"2x2"})",
      R"({"command":"layout","layout":"file"})",
      R"({"command":"solo","channel":"$"})"};
  const TemporaryFolder folder;
  const std::filesystem::path path = folder / "wall.toml";
  const std::string example = Replaced(ReadWholeFile(TAVREL_DOCS "/wall-example.toml"), "preroll",
                                       "spare = 4 # é\npreroll");
  std::mt19937 random(1);
  config::Wall known;
  for (int step = 0; step < 300; ++step) {
    if (step % 15 == 0) {
      WriteWholeFile(path, example);
      known = config::ReadWall(path).wall;
    }
    WallState state = WallState::Of(known);
    state.layout = known.layout;
    EXPECT_TRUE(WriteWallFile(path, known, state) == known);
    ASSERT_TRUE(step % 15 != 0 || ReadWholeFile(path) == example) << "nothing has changed";
    for (int i = 0; i < 3; ++i) {
      WallState next = state;
      CommandContext context{next, folder.Path(), {}};
      const auto any = [&] {
        const std::string name =
            json(state.ChannelNames().at(random() % state.order.size())).dump();
        return name.substr(1, name.size() - 2);
      };
      const std::string command = Replaced(commands.at(random() % commands.size()), "$", any());
      try {
        Carry(json::parse(Replaced(command, "%", any())), context);
        state = next.order.empty() ? state : next;
      } catch (const CommandError&) {
        continue;  // not possible in this state
      }
    }
    known = WriteWallFile(path, known, state);
    ASSERT_TRUE(known == WallOf(state, known)) << ReadWholeFile(path);
    ASSERT_THAT(ReadWholeFile(path), HasSubstr("\n[[output]]\nurl = \"srt://10.0.0.20:9000"));
  }
  WriteWholeFile(path, ReadWholeFile(path) + "\n[[channel]]\nsource='x'\nwindow=[0,0,16,16]\n");
  EXPECT_THROW(WriteWallFile(path, known, WallState::Of(known)), CommandError)
      << "of somebody else";
}

}  // namespace
}  // namespace host::control
