#include <charconv>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "host/config/sections.h"
#include "host/config/url.h"

namespace host::config {
namespace {

constexpr int kMinWindow = 64;
constexpr int kMaxWindow = 16'384;

// "1280x720"
std::optional<std::pair<int, int>> ParseWindowSize(const std::string& text) {
  const char* const end = text.data() + text.size();
  int width = 0;
  int height = 0;
  const auto first = std::from_chars(text.data(), end, width);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != 'x') {
    return std::nullopt;
  }
  const auto second = std::from_chars(first.ptr + 1, end, height);
  const bool isInRange =
      width >= kMinWindow && width <= kMaxWindow && height >= kMinWindow && height <= kMaxWindow;
  return second.ec == std::errc() && second.ptr == end && isInRange
             ? std::optional(std::pair(width, height))
             : std::nullopt;
}

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
    if (const auto size = ParseWindowSize(*window)) {
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
