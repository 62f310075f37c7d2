#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/os/installed.h"
#include "platform/os/process.h"

namespace os {
namespace {

namespace fs = std::filesystem;

// From the folder that holds the file; empty when there is none.
fs::path From(const std::string& file, const char* relative) {
  return file.empty() ? fs::path() : (fs::path(file).parent_path() / relative).lexically_normal();
}

}  // namespace

std::vector<fs::path> DataFolders() {
  std::vector<fs::path> folders;
  const std::string module = ModulePathOf(reinterpret_cast<const void*>(&DataFolders));
  const auto add = [&](const fs::path& folder) {
    if (folder.is_absolute()) {
      folders.push_back(folder);
    }
  };
  add(From(ProgramPath(), TAVREL_PROGRAM_TO_DATA));
  add(From(module, TAVREL_LIBRARY_TO_DATA));
  add(TAVREL_DATA_DIR);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  const char* const given = std::getenv("XDG_DATA_DIRS");
  std::istringstream all(given != nullptr && *given != '\0' ? given
                                                            : "/usr/local/share:/usr/share");
  for (std::string folder; std::getline(all, folder, ':');) {
    add(fs::path(folder) / "tavrel");
  }
  return folders;
}

fs::path LibraryFolder() {
  return From(ProgramPath(), TAVREL_PROGRAM_TO_LIBRARY);
}

}  // namespace os
