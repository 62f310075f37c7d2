#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

#include "host/config/sections.h"
#include "host/config/url.h"
#include "host/config/value_text.h"

namespace host::config {

namespace {

constexpr Time kMaxSegment = Time{366} * 24 * 3600 * kSecond;
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

constexpr int kMinWindow = 64;
constexpr int kMaxWindow = 16'384;

}  // namespace

bool IsScreen(const toml::table& output) {
  const auto url = output["url"].value<std::string>();
  return url && IsScreen(*url);
}

Screen ReadScreen(TableReader& reader) {
  Screen screen;
  const std::string url = reader.Text("url").value_or("");
  if (const auto display = DisplayOf(url)) {
    screen.display = *display;
  } else {
    reader.Error("url", kDisplayForm);
  }
  if (const auto window = reader.FilledText("window")) {
    if (const auto size = ParseSize(*window); size &&
                                              std::min(size->first, size->second) >= kMinWindow &&
                                              std::max(size->first, size->second) <= kMaxWindow) {
      std::tie(screen.width, screen.height) = *size;
    } else {
      reader.Error("window",
                   "must be the size of the window, such as \"1280x720\", 64x64 at least; "
                   "without it the wall is shown full screen");
    }
  }
  screen.audio = reader.Boolean("audio").value_or(false);
  for (const char* const key :
       {"format", "codec", "preset", "bitrate", "quality", "keyframe_interval", "low_delay",
        "audio_wait", "overwrite", "segment", "segment_size", "options"}) {
    if (reader.Find(key) != nullptr) {
      reader.Error(key,
                   "is not for a screen, which shows the wall without encoding it; a screen has "
                   "\"window\" and \"audio\"");
    }
  }
  screen.places = reader.AllPlaces();
  reader.Finish();
  return screen;
}

}  // namespace host::config
