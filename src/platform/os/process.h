// The process: its program and libraries, where the installed parts of the program are, what it and
// its machine use, and how its heap keeps what was freed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace os {

// Times in 100 ns units, memory in bytes. What the system does not provide is 0.
struct SystemStatistics {
  std::uint64_t processKernelTime = 0;  // of all threads, since the process started
  std::uint64_t processUserTime = 0;
  std::uint64_t workingSet = 0;       // of the process, in physical memory
  std::uint64_t privateBytes = 0;     // of the process alone, in physical memory or swapped out
  std::uint64_t commitTotal = 0;      // of the machine: physical memory and swap
  std::uint64_t commitAvailable = 0;  // of that, what could still be given out
  std::uint32_t handleCount = 0;      // open descriptors of the process
  std::uint64_t idleTime = 0;         // of all processors, since the machine started
  std::uint64_t kernelTime = 0;       // includes the idle time
  std::uint64_t userTime = 0;
};

SystemStatistics ReadSystemStatistics();

// For a program that runs for months while decoders of all sizes come and go: large blocks live
// outside the heap and go back to the system when they are freed. Otherwise the C library raises
// the size from which it does so with every large block that is freed, frames end up between
// small things that stay, and the process grows for hours. Once, before the first thread; blocks of
// 256 KB and more then cost a call of the system each, so what needs many of them pools them.
void KeepLargeBlocksOutOfHeap();

// Absolute path of the library or program that holds address; empty when none does.
std::string ModulePathOf(const void* address);

// Absolute path of the running program; empty when the system does not provide it.
std::string ProgramPath();

// Keeps the library that holds address, and with it every library that it needs, loaded until the
// process ends. For libraries that cannot stand being unloaded.
void KeepModuleLoaded(const void* address);

// A loaded library. It is unloaded when the last holder is gone; a caller that uses its code keeps
// one.
class Module {
 public:
  // Throws std::runtime_error that names the file and the loader's reason.
  static std::shared_ptr<Module> Load(const std::string& path);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // Address of an exported function, or null.
  void* Find(const char* name) const;
  template <typename Function>
  Function* Find(const char* name) const {
    return reinterpret_cast<Function*>(Find(name));
  }
  const std::string& Path() const { return path_; }

 private:
  Module(void* handle, std::string path);

  void* handle_;
  std::string path_;
};

// Installed parts are found from where the program runs, so that a tree that is installed may be
// moved as a whole.

// Folders of installed data, in the order in which they are to be searched: as the running program
// and the library that holds this code are installed, as was configured when they were built, and
// those of all users (XDG_DATA_DIRS). Absolute; they may not exist, and may be the same.
std::vector<std::filesystem::path> DataFolders();

// Where the program's filter libraries are installed; empty when it is not known where it runs.
std::filesystem::path LibraryFolder();

}  // namespace os
