#include <filesystem>
#include <stdexcept>

#include <dlfcn.h>

#include "platform/os/module.h"

namespace os {

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

}  // namespace os
