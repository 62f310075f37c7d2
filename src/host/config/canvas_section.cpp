#include <cmath>

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

void ReadFrameRate(TableReader& reader, Ratio& rate) {
  constexpr const char* kKey = "frame_rate";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  std::optional<Ratio> given;
  if (node->is_number()) {
    given = FrameRateOf(node->value<double>().value_or(0));
  } else if (node->is_string()) {
    given = ParseFrameRate(*node->value<std::string>());
  }
  if (!given) {
    reader.Error(kKey, "must be frames per second: 25, 29.97 or \"30000/1001\"");
  } else if (given->value() < kSlowestRate || given->value() > kFastestRate) {
    reader.Error(kKey, "must lie between 1 and 120 frames per second");
  } else {
    rate = *given;
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

std::optional<int> ReadPixels(TableReader& reader, const char* key) {
  const auto value = reader.Integer(key, 0, 1000);
  return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

}  // namespace

void ReadCanvas(TableReader& reader, const FileContext& context, Canvas& canvas,
                LayoutRules& rules) {
  ReadSize(reader, "width", canvas.width);
  ReadSize(reader, "height", canvas.height);
  ReadFrameRate(reader, canvas.frameRate);
  canvas.aspect = ReadAspect(reader, "aspect").value_or(Reduced({canvas.width, canvas.height}));
  ReadBackground(reader, context, canvas.background);
  constexpr int kMaxDrift = 1000;
  canvas.clockOffset =
      static_cast<int>(reader.Integer("clock_offset", -kMaxDrift, kMaxDrift).value_or(0));
  canvas.preroll = reader.Duration("preroll", 0, 3600 * kSecond).value_or(0);

  if (const auto columns = reader.Integer("columns", 1, static_cast<int>(kMaxChannels))) {
    rules.columns = static_cast<int>(*columns);
  }
  rules.gap = ReadPixels(reader, "gap");
  rules.margin = ReadPixels(reader, "margin");
  rules.labelRoom = ReadPixels(reader, "label_room");
  rules.windowAspect = ReadAspect(reader, "window_aspect");
  canvas.places = reader.AllPlaces();
  reader.Finish();
}

}  // namespace host::config
