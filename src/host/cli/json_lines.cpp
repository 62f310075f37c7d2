#include "host/cli/json_lines.h"

#include <utility>

namespace host::cli {
namespace {

constexpr std::size_t kMostWaiting = 1024;

}  // namespace

JsonLines::JsonLines(std::ostream& stream, bool enabled) : stream_(stream), queue_(kMostWaiting) {
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
    queue_.Close();
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

void JsonLines::Run() {
  while (const std::optional<std::string> line = queue_.Pop()) {
    if (const std::uint64_t dropped = dropped_.exchange(0)) {
      stream_ << "{\"event\":\"dropped\",\"lines\":" << dropped << "}\n";
    }
    stream_ << *line << "\n" << std::flush;
  }
}

}  // namespace host::cli
