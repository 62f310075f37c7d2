// The process: its program and libraries, where the installed parts of the program are, what it and
// its machine use, and a setting of its heap.
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
  std::uint64_t commitAvailable = 0;  // of that, what is still available
  std::uint32_t handleCount = 0;      // open descriptors of the process
  std::uint64_t idleTime = 0;         // of all processors, since the machine started
  std::uint64_t kernelTime = 0;       // includes the idle time
  std::uint64_t userTime = 0;
};

SystemStatistics ReadSystemStatistics();

// Makes the C library allocate large blocks outside the heap and return them to the system when
// they are freed. By default it raises the size of such blocks with every one that is freed; frames
// end up between small long-lived blocks, and a program that runs for months keeps growing. Once,
// before the first thread. Each block of 256 KB and more then costs a system call, so code that
// needs many pools them.
void KeepLargeBlocksOutOfHeap();

// Absolute path of the library or program that holds address; empty when none does.
std::string ModulePathOf(const void* address);

// Absolute path of the running program; empty when the system does not provide it.
std::string ProgramPath();

// Keeps the library that holds address, and with it every library that it needs, loaded until the
// process ends. For libraries that do not support being unloaded.
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

// Installed parts are found relative to the program, so that the installed tree may be moved.

// Folders of installed data in search order: relative to the running program, relative to the
// library that holds this code, as configured for the build, and those of all users
// (XDG_DATA_DIRS). Absolute; some may not exist or be the same.
std::vector<std::filesystem::path> DataFolders();

// Where the program's filter libraries are installed; empty when it is not known where it runs.
std::filesystem::path LibraryFolder();

}  // namespace os
