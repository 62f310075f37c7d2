#include "host/cli/json_lines.h"

#include <chrono>
#include <utility>

#include "platform/os/console.h"

namespace host::cli {
namespace {

constexpr std::size_t kMaxWaiting = 1024;
constexpr std::chrono::milliseconds kTimeout{500};

}  // namespace

JsonLines::JsonLines(std::ostream& stream, bool enabled) : stream_(stream), queue_(kMaxWaiting) {
  if (enabled) {
    thread_ = std::make_unique<os::Thread>([this] { Run(); }, "json lines");
  }
}

JsonLines::~JsonLines() {
  Finish();
}

void JsonLines::Write(std::string line) {
  if (enabled() && queue_.PushDroppingOldest(std::move(line)).has_value()) {
    ++dropped_;
  }
}

void JsonLines::Finish() {
  if (thread_ != nullptr) {
    finishing_ = true;
    queue_.Close();
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

void JsonLines::Run() {
  while (const std::optional<std::string> line = queue_.Pop()) {
    std::string text;
    if (const std::uint64_t dropped = dropped_.exchange(0)) {
      text = "{\"event\":\"dropped\",\"lines\":" + std::to_string(dropped) + "}\n";
    }
    text += *line + "\n";
    stream_.clear();
    stream_.write(text.data(), static_cast<std::streamsize>(text.size()));
    while (!os::FlushWithin(stream_, kTimeout)) {
      if (finishing_) {
        return;
      }
    }
  }
}

}  // namespace host::cli
