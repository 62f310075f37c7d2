#include "host/config/sections.h"
#include "host/config/value_text.h"

namespace host::config {

namespace {

constexpr Time kMaxSegment = 366 * 24 * (3600 * kSecond);
constexpr std::int64_t kSmallestSegment = 1'000'000;  // bytes

void ReadBitRate(TableReader& reader, std::int64_t& bitRate) {
  constexpr const char* kKey = "bitrate";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  std::optional<std::int64_t> given;
  if (node->is_integer()) {
    given = node->value<std::int64_t>();
  } else if (node->is_string()) {
    given = ParseBitRate(*node->value<std::string>());
  }
  if (!given || *given < 10'000 || *given > 1'000'000'000) {
    reader.Error(kKey, "must be bits per second from 10k to 1000M: 6000000, \"800k\" or \"6M\"");
    return;
  }
  bitRate = *given;
}

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
  ReadBitRate(reader, output.bitRate);
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

}  // namespace host::config
