// Loadable libraries: which one holds a piece of code, and loading another one.
#pragma once

#include <memory>
#include <string>

namespace os {

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

}  // namespace os
