#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "host/config/sections.h"
#include "host/config/value_text.h"

namespace host::config {

namespace {

constexpr double kSlowestRate = 1;
constexpr double kFastestRate = 120;

void ReadSize(TableReader& reader, const char* key, int& size) {
  if (const auto value = reader.Integer(key, kSmallestCanvas, kLargestCanvas)) {
    if (*value % 2 != 0) {
      reader.Error(key, "must be even, not " + std::to_string(*value));
    } else {
      size = static_cast<int>(*value);
    }
  }
}

std::optional<Ratio> ReadAspect(TableReader& reader, const char* key) {
  const auto text = reader.Text(key);
  if (!text) {
    return {};
  }
  const auto aspect = ParseAspect(*text);
  if (!aspect) {
    reader.Error(key, "must be width to height, such as \"16:9\"");
  }
  return aspect;
}

std::optional<Rgb> ReadRgb(TableReader& reader, const char* key) {
  const auto text = reader.Text(key);
  const auto colour = text ? ParseRgb(*text) : std::nullopt;
  if (text && !colour) {
    reader.Error(key, "must be a colour: \"#RRGGBB\" or \"#RGB\"");
  }
  return colour;
}

void UsePicture(TableReader& reader, const char* key, const std::string& name,
                const FileContext& context, Background& background) {
  background.kind = Background::Kind::kPicture;
  background.picture = ResolvePath(name, context);
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(background.picture, ignored)) {
    reader.Error(key, "names no file: " + background.picture.string());
  }
}

void UseColour(Rgb colour, Background& background) {
  background.kind = Background::Kind::kColour;
  background.top = colour;
  background.bottom = colour;
}

// A text is a colour or the name of a picture file; a table says which.
void ReadBackground(TableReader& reader, const FileContext& context, Background& background) {
  constexpr const char* kKey = "background";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  if (node->is_string()) {
    const std::string text = *node->value<std::string>();
    if (const auto colour = ParseRgb(text)) {
      UseColour(*colour, background);
    } else if (text.empty() || text.front() == '#') {
      reader.Error(kKey, "must be a colour (\"#RRGGBB\" or \"#RGB\") or a picture file");
    } else {
      UsePicture(reader, kKey, text, context, background);
    }
    return;
  }
  const toml::table* const table = node->as_table();
  if (table == nullptr) {
    reader.Error(kKey,
                 "must be a colour, a picture file, or a gradient: { top = \"#...\", bottom = "
                 "\"#...\" }");
    return;
  }
  TableReader inner(*table, "\"background\"", reader.diagnostics());
  const auto colour = ReadRgb(inner, "colour");
  const auto picture = inner.FilledText("picture");
  const auto top = ReadRgb(inner, "top");
  const auto bottom = ReadRgb(inner, "bottom");
  const bool gradient = inner.Find("top") != nullptr || inner.Find("bottom") != nullptr;
  const int ways = (inner.Find("colour") != nullptr ? 1 : 0) +
                   (inner.Find("picture") != nullptr ? 1 : 0) + (gradient ? 1 : 0);
  if (ways != 1) {
    reader.Error(kKey, "needs one of colour, picture, or top and bottom");
  } else if (picture) {
    UsePicture(inner, "picture", *picture, context, background);
  } else if (colour) {
    UseColour(*colour, background);
  } else if (gradient) {
    background.kind = Background::Kind::kGradient;
    background.top = top.value_or(background.top);
    background.bottom = bottom.value_or(background.bottom);
  }
  inner.Finish();
}

// Besides the frame that is shown, the composer needs two that wait.
void ReadDelay(TableReader& reader, Canvas& canvas) {
  constexpr const char* kKey = "delay";
  const Time least = std::min(FrameStart(3, canvas.frameRate), kMaxDelay);
  const auto delay = reader.Duration(kKey, kMinDelay, kMaxDelay);
  if (delay && *delay < least) {
    reader.Error(kKey, "must be three frames at least, which take " +
                           std::to_string(least / kMillisecond) + " ms at this frame rate");
  }
  canvas.delay = DelayInFrames(delay.value_or(canvas.delay), canvas.frameRate);
}

std::optional<int> ReadPixels(TableReader& reader, const char* key) {
  const auto value = reader.Integer(key, 0, 1000);
  return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

}  // namespace

std::optional<Ratio> ReadFrameRate(TableReader& reader, const char* key) {
  const toml::node* const node = reader.Find(key);
  if (node == nullptr) {
    return {};
  }
  std::optional<Ratio> given;
  if (node->is_number()) {
    given = FrameRateOf(node->value<double>().value_or(0));
  } else if (node->is_string()) {
    given = ParseFrameRate(*node->value<std::string>());
  }
  if (!given) {
    reader.Error(key, "must be frames per second: 25, 29.97 or \"30000/1001\"");
  } else if (given->value() < kSlowestRate || given->value() > kFastestRate) {
    reader.Error(key, "must lie between 1 and 120 frames per second");
    return {};
  }
  return given;
}

std::optional<std::int64_t> ReadBitRate(TableReader& reader) {
  constexpr const char* kKey = "bitrate";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return {};
  }
  std::optional<std::int64_t> given;
  if (node->is_integer()) {
    given = node->value<std::int64_t>();
  } else if (node->is_string()) {
    given = ParseBitRate(*node->value<std::string>());
  }
  if (!given || *given < 10'000 || *given > 1'000'000'000) {
    reader.Error(kKey, "must be bits per second from 10k to 1000M: 6000000, \"800k\" or \"6M\"");
    return {};
  }
  return given;
}

void ReadCanvas(TableReader& reader, const FileContext& context, Wall& wall) {
  Canvas& canvas = wall.canvas;
  LayoutRules& rules = wall.rules;
  ReadSize(reader, "width", canvas.width);
  ReadSize(reader, "height", canvas.height);
  canvas.frameRate = ReadFrameRate(reader, "frame_rate").value_or(canvas.frameRate);
  canvas.aspect =
      ReadAspect(reader, "aspect").value_or(Reduced(Ratio{canvas.width, canvas.height}));
  ReadBackground(reader, context, canvas.background);
  constexpr int kMaxDrift = 1000;
  canvas.clockOffset =
      static_cast<int>(reader.Integer("clock_offset", -kMaxDrift, kMaxDrift).value_or(0));
  canvas.preroll = reader.Duration("preroll", 0, 3600 * kSecond).value_or(0);
  ReadDelay(reader, canvas);

  if (const auto columns = reader.Integer("columns", 1, static_cast<int>(kMaxChannels))) {
    rules.columns = static_cast<int>(*columns);
  }
  rules.gap = ReadPixels(reader, "gap");
  rules.margin = ReadPixels(reader, "margin");
  rules.labelRoom = ReadPixels(reader, "label_room");
  rules.windowAspect = ReadAspect(reader, "window_aspect");
  wall.follow = reader.Boolean("follow").value_or(false);
  wall.spare =
      static_cast<int>(reader.Integer("spare", 0, static_cast<int>(kMaxChannels)).value_or(0));
  wall.layout = reader.FilledText("layout").value_or("");
  canvas.places = reader.AllPlaces();
  reader.Finish();
}

namespace {

std::optional<std::int32_t> ReadSize(TableReader& reader, const char* key) {
  const toml::node* const node = reader.Find(key);
  if (node == nullptr) {
    return {};
  }
  const auto size = node->is_integer() ? ParseByteSize(std::to_string(*node->value<std::int64_t>()))
                    : node->is_string() ? ParseByteSize(*node->value<std::string>())
                                        : std::nullopt;
  if (!size) {
    reader.Error(key, kByteSizeForm);
  }
  return size;
}

// An empty path stays empty: it overrides a default.
std::optional<std::filesystem::path> ReadFile(TableReader& reader, const char* key,
                                              const FileContext& context) {
  const auto path = reader.Text(key);
  if (!path) {
    return {};
  }
  return path->empty() ? std::filesystem::path() : ResolvePath(*path, context);
}

}  // namespace

void ReadLog(TableReader& reader, const FileContext& context, LogOptions& log) {
  if (const auto level = reader.Integer("level", 0, kHighestLogLevel)) {
    log.level = static_cast<int>(*level);
  }
  log.file = ReadFile(reader, "file", context);
  log.size = ReadSize(reader, "size");
  if (const auto syslog = reader.Text("syslog")) {
    log.syslog = ParseEndpoint(*syslog);
    if (!log.syslog) {
      reader.Error("syslog", kEndpointForm);
    }
  }
  log.perfFile = ReadFile(reader, "perf_file", context);
  log.perfPeriod = reader.Duration("perf_period", kMinPerfPeriod, kMaxPerfPeriod);
  if (log.file && log.file == log.perfFile && !log.file->empty()) {
    reader.Error("perf_file", "is the file of the messages already; give it a file of its own");
  }
  log.places = reader.AllPlaces();
  reader.Finish();
}

namespace {

std::optional<Window> WindowOf(const toml::node& node, const Canvas& canvas,
                               Diagnostics& diagnostics) {
  const toml::array* const array = node.as_array();
  if (array == nullptr || array->size() != 4 || !array->is_homogeneous<std::int64_t>()) {
    diagnostics.Error(PositionOf(node),
                      "a window must be four whole numbers: [x, y, width, height]");
    return {};
  }
  std::array<std::int64_t, 4> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers[i] = array->get(i)->value<std::int64_t>().value_or(0);
    if (numbers[i] < 0 || numbers[i] > kLargestCanvas || numbers[i] % 2 != 0) {
      diagnostics.Error(PositionOf(*array->get(i)),
                        "must be an even number from 0 to " + std::to_string(kLargestCanvas));
      return {};
    }
  }
  const Window window{static_cast<int>(numbers[0]), static_cast<int>(numbers[1]),
                      static_cast<int>(numbers[2]), static_cast<int>(numbers[3])};
  if (window.width < kSmallestCanvas || window.height < kSmallestCanvas ||
      !CanBeSelected(window, canvas)) {
    diagnostics.Error(PositionOf(node),
                      "a window of a layout has 16x16 pixels at least and lies inside the canvas, "
                      "one pixel away from its right and bottom edges");
    return {};
  }
  return window;
}

Layout ReadLayout(TableReader& reader, const std::string& name, const Canvas& canvas) {
  Layout layout;
  layout.name = name;
  const toml::node* const windows = reader.Find("windows");
  const toml::array* const places = windows != nullptr ? windows->as_array() : nullptr;
  if (places == nullptr || places->empty() || places->size() > kMaxChannels) {
    reader.diagnostics().Error(windows != nullptr ? PositionOf(*windows) : reader.position(),
                               reader.title() + " needs \"windows\": 1 to " +
                                   std::to_string(kMaxChannels) +
                                   " places, each [x, y, width, height]");
  } else {
    for (const toml::node& node : *places) {
      if (const auto window = WindowOf(node, canvas, reader.diagnostics())) {
        layout.places.push_back({*window, {}});
      }
    }
  }
  if (const toml::node* const channels = reader.Find("channels")) {
    const toml::array* const names = channels->as_array();
    if (names == nullptr || !names->is_homogeneous<std::string>() ||
        names->size() > layout.places.size()) {
      reader.Error("channels",
                   "must be names of channels, at most one for each window; \"\" for the next one "
                   "in order");
    } else {
      for (std::size_t i = 0; i < names->size(); ++i) {
        layout.places[i].channel = names->get(i)->value<std::string>().value_or("");
      }
    }
  }
  reader.Finish();
  return layout;
}

}  // namespace

std::vector<Layout> ReadLayouts(TableReader& root, const Canvas& canvas) {
  std::vector<Layout> layouts;
  const toml::table* const table = root.Table("layout");
  if (table == nullptr) {
    return layouts;
  }
  for (const auto& [key, node] : *table) {
    const std::string name(key.str());
    const Position position{key.source().begin.line, key.source().begin.column};
    const toml::table* const layout = node.as_table();
    if (layout == nullptr || !IsLayoutName(name) || IsReservedLayout(name)) {
      root.diagnostics().Error(
          position, layout == nullptr ? "a layout is a section [layout.NAME]"
                    : IsReservedLayout(name)
                        ? "\"" + name + "\" is the name of a layout that every wall has"
                        : "a layout's name has up to 64 letters, digits, blanks, _ - + or .");
      continue;
    }
    TableReader reader(*layout, "[layout." + name + "]", root.diagnostics());
    layouts.push_back(ReadLayout(reader, name, canvas));
  }
  return layouts;
}

}  // namespace host::config
