#include "host/control/layout_book.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "host/config/wall_file.h"
#include "host/control/command.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace host::control {
namespace {

std::string TextOf(const std::map<std::string, config::Layout>& layouts) {
  std::ostringstream text;
  text << "# Layouts that were saved while the wall was running.\n";
  for (const auto& [name, layout] : layouts) {
    text << "\n[layout.\"" << name << "\"]\nwindows = [\n";
    bool isByName = false;
    for (const config::Layout::Place& place : layout.places) {
      text << "  [" << place.window.x << ", " << place.window.y << ", " << place.window.width
           << ", " << place.window.height << "],\n";
      isByName = isByName || !place.channel.empty();
    }
    text << "]\n";
    if (isByName) {
      text << "channels = [\n";
      for (const config::Layout::Place& place : layout.places) {
        text << "  " << config::QuotedToml(place.channel) << ",\n";
      }
      text << "]\n";
    }
  }
  return text.str();
}

}  // namespace

LayoutBook::LayoutBook(const std::filesystem::path& wallFile)
    : file_(std::filesystem::path(wallFile).replace_extension(".layouts.toml")) {}

std::map<std::string, config::Layout> LayoutBook::Read(const config::Canvas& canvas) const {
  std::map<std::string, config::Layout> layouts;
  std::error_code ignored;
  if (!std::filesystem::exists(file_, ignored)) {
    return layouts;
  }
  std::ifstream stream(file_, std::ios::binary);
  if (!stream) {
    throw CommandError(CommandError::Kind::kFailed, file_.string() + " cannot be read");
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  const config::LayoutsText book = config::ParseLayouts(text, canvas);
  for (const config::Diagnostic& diagnostic : book.diagnostics.all()) {
    if (diagnostic.severity == config::Diagnostic::Severity::kError) {
      throw CommandError(CommandError::Kind::kFailed, config::ToText(diagnostic, file_.string()));
    }
  }
  for (const config::Layout& layout : book.layouts) {
    layouts[layout.name] = layout;
  }
  return layouts;
}

void LayoutBook::Write(const std::map<std::string, config::Layout>& layouts) const {
  if (const std::uint32_t error = os::ReplaceFile(file_, TextOf(layouts)); error != 0) {
    throw CommandError(CommandError::Kind::kFailed,
                       file_.string() + " cannot be written: " + os::FileErrorText(error));
  }
}

}  // namespace host::control
