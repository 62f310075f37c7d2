#include <array>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include "platform/os/process.h"

namespace os {
namespace {

std::uint64_t ToUnits(const timeval& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 10000000 +
         static_cast<std::uint64_t>(time.tv_usec) * 10;
}

// Calls take(key, number) for each "Key:  number kB" line.
template <typename Take>
void ForEachKilobyteLine(const char* file, Take take) {
  std::ifstream lines(file);
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t colon = line.find(':');
    const std::size_t digits = line.find_first_of("0123456789", colon);
    if (colon == std::string::npos || digits == std::string::npos) {
      continue;
    }
    std::uint64_t kilobytes = 0;
    std::from_chars(line.data() + digits, line.data() + line.size(), kilobytes);
    take(std::string_view(line).substr(0, colon), kilobytes * 1024);
  }
}

void ReadProcess(SystemStatistics& statistics) {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) == 0) {
    statistics.processKernelTime = ToUnits(usage.ru_stime);
    statistics.processUserTime = ToUnits(usage.ru_utime);
  }
  ForEachKilobyteLine("/proc/self/status", [&](std::string_view key, std::uint64_t bytes) {
    if (key == "VmRSS") {
      statistics.workingSet = bytes;
    } else if (key == "RssAnon" || key == "VmSwap") {
      statistics.privateBytes += bytes;
    }
  });
  std::error_code unreadable;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", unreadable), end;
       !unreadable && entry != end; entry.increment(unreadable)) {
    ++statistics.handleCount;
  }
  if (statistics.handleCount > 0) {
    --statistics.handleCount;  // the one that read the list
  }
}

void ReadMachine(SystemStatistics& statistics) {
  // Where memory is overcommitted, the committed memory says little; the available memory does.
  ForEachKilobyteLine("/proc/meminfo", [&](std::string_view key, std::uint64_t bytes) {
    if (key == "MemTotal" || key == "SwapTotal") {
      statistics.commitTotal += bytes;
    } else if (key == "MemAvailable" || key == "SwapFree") {
      statistics.commitAvailable += bytes;
    }
  });
  std::ifstream file("/proc/stat");
  std::string name;
  std::array<std::uint64_t, 8> ticks{};
  file >> name;
  for (std::uint64_t& value : ticks) {
    file >> value;
  }
  const auto [user, nice, system, idle, inputOutput, interrupt, softInterrupt, stolen] = ticks;
  const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  const auto toUnits = [&](std::uint64_t value) { return value * 10000000 / ticksPerSecond; };
  statistics.idleTime = toUnits(idle + inputOutput);
  statistics.kernelTime =
      toUnits(system + interrupt + softInterrupt + stolen) + statistics.idleTime;
  statistics.userTime = toUnits(user + nice);
}

}  // namespace

SystemStatistics ReadSystemStatistics() {
  SystemStatistics statistics;
  ReadProcess(statistics);
  ReadMachine(statistics);
  return statistics;
}

void KeepLargeBlocksOutOfHeap() {
  constexpr int kLargeBlock = 256 * 1024;
  // Once set, the threshold is no longer raised by blocks that are freed.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread yet
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

std::string ModulePathOf(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
    return {};
  }
  std::error_code ignored;
  const std::filesystem::path path = std::filesystem::canonical(info.dli_fname, ignored);
  return ignored ? info.dli_fname : path.string();
}

std::string ProgramPath() {
  std::error_code failed;
  const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", failed);
  return failed ? std::string() : path.string();
}

void KeepModuleLoaded(const void* address) {
  const std::string path = ModulePathOf(address);
  // The handle is never closed; without a loaded library of that name there is nothing to keep.
  dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

std::shared_ptr<Module> Module::Load(const std::string& path) {
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): one for each thread
    throw std::runtime_error("cannot load " + path + ": " +
                             (reason != nullptr ? reason : "unknown reason"));
  }
  return std::shared_ptr<Module>(new Module(handle, path));
}

Module::Module(void* handle, std::string path) : handle_(handle), path_(std::move(path)) {}

Module::~Module() {
  dlclose(handle_);
}

void* Module::Find(const char* name) const {
  return dlsym(handle_, name);
}

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
