#include <cmath>
#include <optional>
#include <string>

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

// Besides the frame on show the composer needs two that wait.
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

constexpr Time kMaxSegment = 366 * 24 * (3600 * kSecond);
constexpr std::int64_t kSmallestSegment = 1'000'000;  // bytes

void ReadSegmentSize(TableReader& reader, std::int64_t& size) {
  constexpr const char* kKey = "segment_size";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  const auto given = node->is_integer()  ? node->value<std::int64_t>()
                     : node->is_string() ? ParseFileSize(*node->value<std::string>())
                                         : std::nullopt;
  if (!given || *given < kSmallestSegment) {
    reader.Error(kKey, "must be bytes, 1 MB at least: 2000000000, \"500 MB\" or \"2 GB\"");
    return;
  }
  size = *given;
}

}  // namespace

Output ReadOutput(TableReader& reader, const FileContext& context) {
  Output output;
  if (const auto url = reader.FilledText("url")) {
    output.url = ResolveSource(*url, context);
  } else if (reader.Find("url") == nullptr && context.complete) {
    reader.diagnostics().Error(reader.position(),
                               reader.title() + " has no \"url\": a file or a URL");
  }
  output.format = reader.FilledText("format").value_or("");
  output.codec = reader.FilledText("codec").value_or(output.codec);
  output.preset = reader.FilledText("preset").value_or(output.preset);
  output.bitRate = ReadBitRate(reader).value_or(output.bitRate);
  output.quality = reader.Number("quality", 0, 51);
  if (output.quality && output.bitRate > 0) {
    reader.Error("quality", "cannot be given together with \"bitrate\"");
  }
  output.keyFrameInterval =
      reader.Duration("keyframe_interval", 0, 600 * kSecond).value_or(output.keyFrameInterval);
  output.lowDelay = reader.Boolean("low_delay").value_or(output.lowDelay);
  output.audio = reader.Boolean("audio").value_or(output.audio);
  output.audioWait = reader.Duration("audio_wait", 0, 60 * kSecond).value_or(output.audioWait);
  output.segment = reader.Duration("segment", kSecond, kMaxSegment).value_or(output.segment);
  ReadSegmentSize(reader, output.segmentSize);
  output.overwrite = reader.Boolean("overwrite").value_or(output.overwrite);
  output.options = reader.Options("options").value_or(output.options);
  output.places = reader.AllPlaces();
  reader.Finish();
  return output;
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

// Empty stays empty: it takes back what a default gives.
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

}  // namespace host::config
