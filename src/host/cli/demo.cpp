#include "host/cli/demo.h"

#include <CLI/CLI.hpp>

#include "host/wall/value_text.h"
#include "host/wall/wall.h"

namespace host::cli {

namespace {

std::string CheckSize(const std::string& text) {
  const std::string range = CLI::Range(wall::kSmallestCanvas, wall::kLargestCanvas)(text);
  if (!range.empty()) {
    return range;
  }
  return std::stoi(text) % 2 == 0 ? std::string() : "must be even";
}

std::string CheckRate(const std::string& text) {
  const auto rate = wall::ParseFrameRate(text);
  return rate && rate->value() >= 1 && rate->value() <= 120
             ? std::string()
             : "must be 1 to 120 frames per second, such as 25 or 30000/1001";
}

}  // namespace

void DefineDemo(CLI::App& app, DemoOptions& options) {
  DefineRecord(app, options.record);
  app.add_option("--channels", options.channels, "number of channels")
      ->envname("TAVREL_CHANNELS")
      ->capture_default_str()
      ->check(CLI::Range(1, static_cast<int>(wall::kMostChannels)));
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
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

}  // namespace host::cli
