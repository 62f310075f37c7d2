#include "platform/text/private_font_file.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "platform/os/module.h"

namespace os {

std::vector<std::string> FindPrivateFontFiles(const std::string& bareName) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const std::vector<fs::path> folders{
      fs::current_path(ignored),
      fs::path(ModulePathOf(reinterpret_cast<const void*>(&FindPrivateFontFiles))).parent_path(),
      fs::path(ProgramPath()).parent_path(),
      TAVREL_DATA_DIR,
  };
  std::vector<std::string> files;
  for (const fs::path& folder : folders) {
    if (!folder.is_absolute()) {
      continue;
    }
    std::string file = fs::canonical(folder / bareName, ignored).string();
    if (ignored || !fs::is_regular_file(file, ignored)) {
      continue;
    }
    if (std::find(files.begin(), files.end(), file) == files.end()) {
      files.push_back(std::move(file));
    }
  }
  return files;
}

}  // namespace os
