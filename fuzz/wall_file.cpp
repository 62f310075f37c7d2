// Any text as a wall file: never an exception, every diagnostic inside the text, and a wall that is
// declared usable keeps what the composer demands.

#include "host/config/wall_file.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const host::config::WallFile file = host::config::ParseWall(text, "/walls");
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const host::config::Diagnostic& diagnostic : file.diagnostics.all()) {
    FUZZ_CHECK(diagnostic.position.line >= 1 && diagnostic.position.line <= lines + 1);
    FUZZ_CHECK(diagnostic.position.column >= 1);
    FUZZ_CHECK(!diagnostic.message.empty());
  }
  if (!file.usable()) {
    return 0;
  }
  const host::config::Canvas& canvas = file.wall.canvas;
  FUZZ_CHECK(canvas.width >= 16 && canvas.width <= 8192 && canvas.width % 2 == 0);
  FUZZ_CHECK(canvas.height >= 16 && canvas.height <= 8192 && canvas.height % 2 == 0);
  FUZZ_CHECK(canvas.frameRate.positive() && canvas.aspect.positive());
  FUZZ_CHECK(!file.wall.channels.empty() &&
             file.wall.channels.size() <= host::config::kMaxChannels);
  for (const host::config::Channel& channel : file.wall.channels) {
    const host::config::Window& window = channel.window;
    FUZZ_CHECK(window.width > 0 && window.height > 0);
    FUZZ_CHECK(window.width % 2 == 0 && window.height % 2 == 0);
    if (channel.selected) {
      FUZZ_CHECK(window.x >= 0 && window.y >= 0);
      FUZZ_CHECK(window.x + window.width < canvas.width);
      FUZZ_CHECK(window.y + window.height < canvas.height);
    }
  }
  return 0;
}
