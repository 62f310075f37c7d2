#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/config/layout.h"
#include "host/config/value_text.h"
#include "host/config/wall_file.h"
#include "tests/support/temporary_folder.h"

namespace host::config {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// "line:column: severity: message" of every diagnostic.
std::vector<std::string> Texts(const WallFile& file) {
  std::vector<std::string> texts;
  for (const Diagnostic& diagnostic : file.diagnostics.all()) {
    texts.push_back(ToText(diagnostic, "w"));
  }
  return texts;
}
std::vector<std::string> Complaints(const std::string& text) {
  return Texts(ParseWall(text, "/walls"));
}

constexpr const char* kChannel = "[[channel]]\nsource = 'udp://239.1.1.1:1'\n";

TEST(WallReader, ReadsDefaultsFormsAndPathsInTheFolderOfTheFile) {
  const TemporaryFolder folder;
  WriteWholeFile(folder / "back.png", "x");
  WriteWholeFile(folder / "one.mp4", "x");
  WriteWholeFile(folder / "wall.toml", R"(
[wall]
frame_rate = 29.97
aspect = "32:18"
background = "back.png"
clock_offset = -40
delay = "250 ms"
[defaults]
hold = "250 ms"
audio = { meter = false }
alarm.silence = { level = -40.5, after = 3 }
options = { a = 1, b = "x" }
[[channel]]
source = './one.mp4'
window = { x = -10, y = 4, width = 640, height = 360 }
label_file = 'title.txt'
colour = "#80FF0000"
deinterlace = "fields"
audio.track = 2
alarm.loss = false
options = { b = true }
[[output]]
url = "file:out.mkv"
bitrate = "6M"
[[output]]
url = "-"
[log]
file = "logs/wall.log"
size = "64K"
syslog = "[::1]:5514"
perf_period = "500 ms"
)");
  const WallFile file = ReadWall(folder / "wall.toml");
  EXPECT_THAT(Texts(file), ElementsAre("w:16:14: warning: \"label_file\" names no file yet: " +
                                       (folder / "title.txt").string()));
  const Wall& wall = file.wall;
  EXPECT_EQ(wall.canvas.frameRate, (Ratio{30000, 1001}));
  EXPECT_EQ(wall.canvas.aspect, (Ratio{16, 9}));
  EXPECT_EQ(wall.canvas.background.picture, folder / "back.png");
  EXPECT_EQ(wall.canvas.clockOffset, -40);
  EXPECT_EQ(wall.canvas.delay, kSecond - FrameStart(22, {30000, 1001}));
  const Channel& channel = wall.channels.at(0);
  EXPECT_EQ(channel.source, folder / "one.mp4");
  EXPECT_EQ(channel.window, (Window{-10, 4, 640, 360}));
  const ChannelOptions& options = channel.options;
  EXPECT_EQ(
      std::tie(options.colour, options.deinterlace, options.hold, options.audio.meter,
               options.audio.track, options.alarm.loss.enabled),
      std::tuple("#80FF0000", DeinterlaceMode::kFields, 250 * kMillisecond, false, 2U, false));
  EXPECT_EQ(std::tie(options.alarm.silence.level, options.alarm.silence.setAfter),
            std::tuple(-40.5, 3 * kSecond));
  EXPECT_THAT(options.options, ElementsAre(std::pair("a", "1"), std::pair("b", "1")));
  EXPECT_EQ(wall.outputs.at(0).url, folder / "out.mkv");
  EXPECT_EQ(wall.outputs.at(0).bitRate, 6'000'000);
  EXPECT_EQ(wall.outputs.at(1).url, "-");
  EXPECT_EQ(std::tie(wall.log.file, wall.log.size, wall.log.perfPeriod, wall.log.syslog),
            std::tuple(folder / "logs/wall.log", 65536, kSecond / 2, Endpoint{"::1", 5514}));
  EXPECT_EQ(ReadWall(folder / "none.toml").diagnostics.all().at(0).message,
            "cannot be read: No such file or directory");
}

TEST(WallReader, ReportsEveryMistakeInTheOrderOfTheFileWithWhatToDo) {
  EXPECT_THAT(
      Complaints(R"([wall]
widht = 1280
height = 721
fps = 25
aspect = "wide"
background = "#12"
[[channel]]
sorce = "udp://239.1.1.1:1"
colour = "red"
deinterlace = "on"
hold = "5 hours"
[[channel]]
source = 7
enabled = "yes"
selekted = true
[[output]]
format = "mpegts"
bitrate = "fast"
[outputs]
[log]
PERF_FILE = 1
bandwidth = 2
)"),
      ElementsAre(
          "w:2:1: error: [wall] has no key \"widht\"; did you mean \"width\"?",
          "w:3:10: error: \"height\" must be even, not 721",
          "w:4:1: error: [wall] has no key \"fps\"; did you mean \"frame_rate\"?",
          "w:5:10: error: \"aspect\" must be width to height, such as \"16:9\"",
          "w:6:14: error: \"background\" must be a colour (\"#RRGGBB\" or \"#RGB\") or a picture "
          "file",
          "w:7:1: error: channel 1 has no \"source\": a file or a URL",
          "w:8:1: error: channel 1 has no key \"sorce\"; did you mean \"source\"?",
          "w:9:10: error: \"colour\" must be \"#RGB\", \"#ARGB\", \"#RRGGBB\" or \"#AARRGGBB\", "
          "not \"red\"",
          "w:10:15: error: \"deinterlace\" must be \"off\", \"auto\", \"frames\" or \"fields\", "
          "not \"on\"",
          "w:11:8: error: \"hold\" must be seconds, or a text with a unit: \"250 ms\", \"5 s\", "
          "\"2 min\", \"1 h\"",
          "w:13:10: error: \"source\" must be a text in quotes, not a number",
          "w:14:11: error: \"enabled\" must be true or false, not a text",
          "w:15:1: error: channel 2 has no key \"selekted\"; did you mean \"selected\"?",
          "w:16:1: error: output 1 has no \"url\": a file or a URL",
          "w:18:11: error: \"bitrate\" must be bits per second from 10k to 1000M: 6000000, "
          "\"800k\" or \"6M\"",
          "w:19:2: error: a wall file has no key \"outputs\"; did you mean \"output\"?",
          "w:21:1: error: [log] has no key \"PERF_FILE\"; did you mean \"perf_file\"?",
          "w:22:1: error: [log] has no key \"bandwidth\"; it knows level, file, size, syslog, "
          "perf_file, perf_period"));
}

TEST(WallReader, ReadsWhatDrivesARunningWall) {
  EXPECT_THAT(
      Complaints("[wall]\nlayout = \"solo\"\n[[channel]]\nsource = 'udp://239.1.1.1:1'\n"
                 "name = \"Cam 1\"\ntally_index = 65535\n[control]\nsoket = \"x\"\n[tally]\n"
                 "listen = [\"udp://0.0.0.0:4003\", \"rtp://0.0.0.0:1\"]\nprotocol = \"5\"\n"
                 "senders = [\"10.0.0.0/33\"]\ndisplay = { 1 = \"Cam1\", x = \"Cam 1\" }\n"
                 "red = 5\n"),
      ElementsAre(HasSubstr("w:2:10: error: \"layout\" cannot be \"solo\""),
                  HasSubstr("w:6:15: error: \"tally_index\" must lie between 0 and 65534"),
                  HasSubstr("w:8:1: error: [control] has no key \"soket\"; did you mean"),
                  HasSubstr("w:10:33: error: \"listen\" must be \"udp://ADDRESS:PORT\""),
                  HasSubstr("w:11:12: error: \"protocol\" must be \"auto\", \"3.1\""),
                  HasSubstr("w:12:12: error: \"10.0.0.0/33\" is no address"),
                  HasSubstr("w:13:17: warning: the file has no channel \"Cam1\"; did you"),
                  HasSubstr("w:13:29: error: \"display\" gives display numbers"),
                  HasSubstr("w:14:7: error: \"red\" must be a tally of version 3.1")));
}

TEST(WallReader, ReportsMistakesOfTheSyntaxAndReadsOn) {
  EXPECT_THAT(Complaints("[wall]\nwidth = 1280\nwidth = 640\nheight = 720p\ncolums = 2\n"
                         "[[channel]]\nsource = \"udp://239.1.1.1:1\nhold = -1\n"),
              ElementsAre("w:3:1: error: \"width\" is given twice",
                          HasSubstr("w:4:13: error: not valid TOML: "),
                          "w:5:1: error: [wall] has no key \"colums\"; did you mean \"columns\"?",
                          "w:7:28: error: not valid TOML: the text is not closed in its line",
                          "w:8:8: error: \"hold\" must lie between 0 s and 86400 s, not -1 s"));
  EXPECT_THAT(Complaints("[[channel]]\nsource = 'udp://239.1.1.1:1'\nwindow = [1,\n"),
              ElementsAre(HasSubstr("error: not valid TOML: array: ")));
}

TEST(WallReader, LimitsChannelsNamesAndKinds) {
  EXPECT_THAT(Complaints(""), ElementsAre(HasSubstr("w:1:1: error: the wall has no channel")));
  std::string many;
  for (int i = 0; i < 37; ++i) {
    many += kChannel;
  }
  EXPECT_THAT(Complaints(many),
              ElementsAre("w:73:1: error: a wall has at most 36 channels, not 37"));
  EXPECT_THAT(Complaints(std::string(kChannel) + "name = 'A'\n" + kChannel + "name = 'A'\n"),
              ElementsAre("w:6:8: error: the name \"A\" is that of channel 1 already"));
  EXPECT_THAT(
      Complaints(std::string("[wall]\nframe_rate = 10\ndelay = 0.25\n") + kChannel),
      ElementsAre("w:3:9: error: \"delay\" must be three frames at least, which take 300 ms "
                  "at this frame rate"));
  EXPECT_THAT(Complaints("channel = 1\nwall = 2\n"),
              ElementsAre(HasSubstr("\"channel\" is written as [[channel]], once for each"),
                          HasSubstr("\"wall\" must be a table, not a number")));
  EXPECT_THAT(Complaints(std::string(kChannel) + "label = 'A'\nlabel_service = true\n"),
              ElementsAre(HasSubstr("w:4:17: error: \"label_service\" cannot be given together")));
}

TEST(WallReader, ExplainsWhereASelectedWindowMayNotBe) {
  const auto with = [](const std::string& window) {
    return Complaints(std::string(kChannel) + "name = 'A'\nselected = true\nwindow = " + window);
  };
  EXPECT_THAT(with("[0, 0, 1918, 1078]"), IsEmpty());
  EXPECT_THAT(
      with("[1280, 0, 640, 360]"),
      ElementsAre("w:5:10: error: the window of \"A\" is selected, so it must lie inside the "
                  "canvas and keep at least one pixel from its right and bottom edges: x "
                  "and y from 0, x + width below 1920 (it is 1920), y + height below 1080 "
                  "(it is 360); the border of a selected window cannot be drawn there"));
  EXPECT_EQ(with("[-2, 0, 640, 360]").size(), 1U);
  EXPECT_EQ(with("[0, 720, 640, 360]").size(), 1U);
  // One that is not selected may lie partly outside.
  EXPECT_THAT(Complaints(std::string(kChannel) + "window = [-320, 900, 640, 360]"), IsEmpty());
}

TEST(WallReader, ChecksTheFormOfWindows) {
  const auto with = [](const std::string& window) {
    return Complaints(std::string(kChannel) + "window = " + window);
  };
  EXPECT_THAT(with("[5, -5, 641, 360]"),
              ElementsAre("w:3:10: warning: \"window\" has odd numbers and is made even: "
                          "[4, -4, 640, 360]"));
  EXPECT_THAT(with("[0, 0, 640]"), ElementsAre(HasSubstr("must be four whole numbers")));
  EXPECT_THAT(with("[0, 0, 0, 360]"),
              ElementsAre("w:3:17: error: the window's width must lie between 2 and 8192"));
  EXPECT_THAT(with("{ x = 0, y = 0, width = 640 }"),
              ElementsAre("w:3:10: error: \"window\" has no height"));
  EXPECT_THAT(with("[4000, 0, 640, 360]"), ElementsAre(HasSubstr("is never seen")));
  EXPECT_THAT(
      Complaints(std::string(kChannel) + "window = [0, 0, 640, 360]\n" + kChannel +
                 "window = [640, 0, 640, 360]\n" + kChannel + "window = [600, 300, 64, 64]\n"),
      ElementsAre("w:9:10: warning: the window of \"Channel 3\" overlaps that of "
                  "\"Channel 1\""));
  EXPECT_THAT(Complaints(std::string(kChannel) + kChannel + "window = [0, 0, 640, 360]"),
              ElementsAre(HasSubstr("w:1:1: error: \"Channel 1\" has no window, but others have")));
}

TEST(WallReader, ChecksWhereTheLogGoes) {
  EXPECT_THAT(Complaints(std::string(kChannel) + R"(
[log]
level = 4
file = "a"
size = "2G"
syslog = "host:0"
perf_file = "a"
)"),
              ElementsAre(HasSubstr("w:5:9: error: \"level\" must lie between 0 and 3"),
                          HasSubstr("w:7:8: error: \"size\" must be a number of bytes"),
                          HasSubstr("w:8:10: error: \"syslog\" must be HOST:PORT"),
                          HasSubstr("w:9:13: error: \"perf_file\" is the file of the messages")));
}

TEST(WallReader, ChecksWhoMayReachTheHttpServer) {
  const auto with = [](const std::string& lines) {
    return Complaints(std::string(kChannel) + "[http]\n" + lines);
  };
  EXPECT_THAT(with("listen = '127.0.0.1:8080'\nhosts = ['wall.example', '::1']"), IsEmpty());
  EXPECT_THAT(with("listen = '[::]:80'\nhosts = ['http://a']\nkey = 'no'\n"),
              ElementsAre(HasSubstr("w:5:10: error: must be the name of a host alone"),
                          HasSubstr("w:6:7: error: \"key\" names no file"),
                          HasSubstr("w:6:7: error: \"key\" needs \"cert\"")));
  EXPECT_THAT(with("preview = { size = '960', rate = 50, bitrate = '1', fps = 1 }"),
              ElementsAre(HasSubstr("w:4:20: error: \"size\" must be a width and a height"),
                          HasSubstr("w:4:34: error: \"rate\" must not be above the frame rate"),
                          HasSubstr("w:4:48: error: \"bitrate\" must be bits per second"),
                          HasSubstr("w:4:53: error: \"preview\" has no key \"fps\"")));
  EXPECT_THAT(
      with("listen = '192.168.1.5:80'"),
      ElementsAre(HasSubstr("w:4:10: error: \"listen\" is an address that other machines")));
  for (const char* const wrong : {"8080", "127.0.0.1", "127.1:80", "::1:80", "wall:80", "::", ""}) {
    EXPECT_FALSE(ParseListenAddress(wrong)) << wrong;
  }
}

TEST(Layout, KeepsWindowsAndLabelsApartInsideTheCanvasForEveryCount) {
  for (const auto& [width, height] :
       {std::pair{1920, 1080}, {3840, 2160}, {720, 576}, {1080, 1920}}) {
    Canvas canvas;
    canvas.width = width;
    canvas.height = height;
    canvas.aspect = Reduced(Ratio{width, height});
    for (std::size_t count = 1; count <= kMaxChannels; ++count) {
      const auto windows = LayOutWindows(canvas, {}, count, true);
      ASSERT_TRUE(windows) << width << " " << count;
      ASSERT_EQ(windows->size(), count);
      for (std::size_t i = 0; i < count; ++i) {
        const Window& window = (*windows)[i];
        EXPECT_TRUE(window.x % 2 == 0 && window.y % 2 == 0 && window.width % 2 == 0 &&
                    window.height % 2 == 0);
        EXPECT_GE(window.x, 0);
        EXPECT_GE(window.y, 0);
        EXPECT_LT(window.x + window.width, width);
        EXPECT_LE(window.y + window.height + LabelRoom(height), height);
        for (std::size_t j = 0; j < i; ++j) {
          const Window& other = (*windows)[j];
          EXPECT_TRUE(other.x + other.width <= window.x || window.x + window.width <= other.x ||
                      other.y + other.height + LabelRoom(height) <= window.y)
              << i << " " << j;
        }
      }
    }
  }
}

TEST(Layout, FollowsItsRules) {
  Canvas canvas;
  LayoutRules rules;
  rules.gap = rules.margin = rules.labelRoom = 0;
  EXPECT_EQ(LayOutWindows(canvas, rules, 4, true)->at(3).width, 958) << "the largest";
  rules.columns = 3;
  rules.windowAspect = Ratio{4, 3};
  const auto windows = LayOutWindows(canvas, rules, 5, false);
  ASSERT_TRUE(windows);
  EXPECT_EQ((*windows)[0].y, (*windows)[2].y);
  EXPECT_LT((*windows)[2].y, (*windows)[3].y);
  EXPECT_NEAR((*windows)[0].width * 3.0 / 4.0, (*windows)[0].height, 2);

  canvas.width = 64;
  canvas.height = 36;
  EXPECT_FALSE(LayOutWindows(canvas, {}, 9, true));
}

TEST(ValueText, ReadsRatesDurationsBitRatesAndColours) {
  EXPECT_EQ(ParseFrameRate("60000/1001"), (Ratio{60000, 1001}));
  EXPECT_EQ(ParseFrameRate("23.976"), (Ratio{24000, 1001}));
  EXPECT_EQ(ParseFrameRate("12.5"), (Ratio{25, 2}));
  EXPECT_EQ(ParseDuration("1.5"), 15'000'000);
  EXPECT_EQ(ParseBitRate("2.5M"), 2'500'000);
  EXPECT_EQ(ParseRgb("#F80"), (Rgb{255, 136, 0}));
  EXPECT_TRUE(IsLabelColour("#8F80"));
  EXPECT_FALSE(ParseFrameRate("25/0") || ParseFrameRate("-25") || ParseFrameRate("25 fps") ||
               ParseAspect("16:0") || ParseDuration("5 minutes") || ParseDuration("1e400") ||
               ParseBitRate("6m") || ParseRgb("#8F80") || IsLabelColour("#12345") ||
               IsLabelColour("FF0000") || IsLabelColour("#GG0000"));
}

}  // namespace
}  // namespace host::config
