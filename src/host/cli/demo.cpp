#include <array>
#include <filesystem>
#include <ostream>

#include <CLI/CLI.hpp>

#include "host/cli/commands.h"
#include "host/cli/demo/clip_writer.h"
#include "host/cli/wall_command.h"
#include "host/config/layout.h"
#include "host/config/value_text.h"
#include "host/config/wall.h"
#include "host/feed/feed_pin.h"
#include "platform/os/files.h"

namespace host::cli {

namespace {

std::string CheckSize(const std::string& text) {
  std::string range = CLI::Range(config::kSmallestCanvas, config::kLargestCanvas)(text);
  if (!range.empty()) {
    return range;
  }
  return std::stoi(text) % 2 == 0 ? std::string() : "must be even";
}

std::string CheckRate(const std::string& text) {
  const auto rate = config::ParseFrameRate(text);
  return rate && rate->value() >= 1 && rate->value() <= 120
             ? std::string()
             : "must be 1 to 120 frames per second, such as 25 or 30000/1001";
}

constexpr double kMaxDemoLength = 3600;  // seconds
constexpr int kLiveSpare = 4;            // channels that can be added to a live one

// Seconds after the start at which the alarm of the demo is raised.
constexpr double kAlarmIsOn = 6.5;

// Labels as operators of such a wall would choose them.
constexpr std::array kLabels{
    "Bars \u00b7 caf\u00e9 cr\u00e8me",
    "\u0395\u03bb\u03bb\u03b7\u03bd\u03b9\u03ba\u03ac 1",
    "\u041f\u0435\u0440\u0432\u044b\u0439 \u043a\u0430\u043d\u0430\u043b",
    "\u0627\u0644\u0642\u0646\u0627\u0629 \u0627\u0644\u0623\u0648\u0644\u0649 2",
    "\u05e2\u05e8\u05d5\u05e5 \u05d4\u05d9\u05dc\u05d3\u05d9\u05dd",
    "\u0939\u093f\u0928\u094d\u0926\u0940 \u0938\u092e\u093e\u091a\u093e\u0930",
    "\u4e2d\u592e\u65b0\u95fb",
    "\u6771\u4eac\u30c6\u30ec\u30d3",
    "Sports \u26bd live"};

constexpr std::array kColours{"#FFFFFF", "#FFE08A", "#9AD8FF", "#FFFFFF", "#B8F5B0",
                              "#FFC2A8", "#FFFFFF", "#E3C8FF", "#FFFFFF"};

config::Wall DemoWall(const DemoOptions& options, const std::vector<std::filesystem::path>& clips) {
  config::Wall wall;
  wall.canvas.width = options.width;
  wall.canvas.height = options.height;
  wall.canvas.frameRate = *config::ParseFrameRate(options.frameRate);
  wall.canvas.aspect = Reduced(Ratio{options.width, options.height});
  const auto count = static_cast<std::size_t>(options.channels);
  const auto windows = config::LayOutWindows(wall.canvas, {}, count, true);
  if (!windows.has_value()) {
    throw GraphError("a canvas of " + std::to_string(options.width) + "x" +
                     std::to_string(options.height) + " has no room for " +
                     std::to_string(options.channels) + " channels");
  }
  for (std::size_t i = 0; i < count; ++i) {
    config::Channel channel;
    channel.name = "Demo " + std::to_string(i + 1);
    channel.source = clips[i % clips.size()].string();
    channel.window = (*windows)[i];
    channel.selected = i == 1;
    channel.label.text = kLabels[i % kLabels.size()];
    // The audio of one channel stops for four of ten seconds: this raises its alarm in a short
    // demo.
    channel.options.alarm.silence = {true, -60, kSecond, kSecond / 2};
    channel.options.colour = kColours[i % kColours.size()];
    wall.channels.push_back(channel);
  }
  return wall;
}

}  // namespace

ExitCode Demo(const DemoOptions& options, Streams& streams) {
  constexpr double kLength = 10;  // seconds; the clips repeat after that
  config::Http http;
  if (!UseHttp(options.http, http, streams)) {
    return ExitCode::kUsage;
  }
  WallCommand command;
  command.graph = options.graph;
  command.record = options.record;
  command.json = options.json;
  command.live = !options.http.empty();
  if (!command.live) {
    command.record.seconds = options.record.seconds.value_or(kLength);
    if (!command.record.snapshotAt && *command.record.seconds > kAlarmIsOn) {
      command.record.snapshotAt = kAlarmIsOn;
    }
  }
  const os::TemporaryFolder folder;
  const Time length = command.live ? static_cast<Time>(kLength * kSecond)
                                   : static_cast<Time>(*command.record.seconds * kSecond) + kSecond;
  const std::vector<std::filesystem::path> clips =
      WriteClips(BuiltInChannels(length), folder.Path());
  command.wall = DemoWall(options, clips);
  if (command.live) {
    command.wall.placesWindows = true;
    command.wall.spare = kLiveSpare;
    command.wall.http = http;
    streams.err << "tavrel: open http://" << options.http
                << "/ in a browser; Ctrl-C ends the wall\n"
                << std::flush;
  }
  return RunWallCommand(command, streams);
}

void DefineDemo(CLI::App& app, DemoOptions& options) {
  DefineRecord(app, options.record);
  // The clips are made as long as that.
  app.get_option("--seconds")->check(SecondsBetween(0, kMaxDemoLength));
  app.get_option("--snapshot-at")
      ->description("seconds after the start [6.5, when an alarm is on]");
  app.add_option("--channels", options.channels, "number of channels")
      ->envname("TAVREL_CHANNELS")
      ->capture_default_str()
      ->check(CLI::Range(1, static_cast<int>(config::kMaxChannels)));
  app.add_option("--width", options.width, "of the canvas in pixels, even")
      ->envname("TAVREL_WIDTH")
      ->capture_default_str()
      ->check(CheckSize);
  app.add_option("--height", options.height, "of the canvas in pixels, even")
      ->envname("TAVREL_HEIGHT")
      ->capture_default_str()
      ->check(CheckSize);
  app.add_option("--frame-rate", options.frameRate, "of the canvas, 25 or 30000/1001")
      ->envname("TAVREL_FRAME_RATE")
      ->capture_default_str()
      ->check(CheckRate);
  DefineHttp(app, options.http,
             "run it live, with the operator's page at ADDRESS:PORT, until Ctrl-C");
  app.add_flag("--json", options.json, "print the result as a line of JSON")
      ->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

}  // namespace host::cli
