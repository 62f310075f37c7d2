#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "platform/os/error_numbers.h"
#include "platform/os/files.h"
#include "platform/os/volumes.h"

namespace os {
namespace {

constexpr char kSeparator = '\\';

// File systems in which the kernel shows its state.
constexpr std::array kKernelFileSystems{
    "autofs", "bpf",      "binfmt_misc", "cgroup",     "cgroup2",   "configfs", "debugfs",
    "devpts", "devtmpfs", "efivarfs",    "fusectl",    "hugetlbfs", "mqueue",   "nsfs",
    "proc",   "pstore",   "rpc_pipefs",  "securityfs", "selinuxfs", "sysfs",    "tracefs"};

// Blanks, tabs, line ends and backslashes in a mount point are written as three octal digits.
std::string UnescapeOctal(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const char* const digits = text.data() + i + 1;
    if (text[i] == '\\' && i + 3 < text.size() &&
        std::from_chars(digits, digits + 3, value, 8).ptr == digits + 3) {
      plain += static_cast<char>(value);
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

std::string RootOfMountPoint(const std::string& mountPoint) {
  std::string root = SystemPath(mountPoint);
  if (root.back() != kSeparator) {
    root += kSeparator;
  }
  return root;
}

}  // namespace

std::uint32_t CheckVolume(std::string_view root) {
  if (root.empty()) {
    return kErrorPathNotFound;
  }
  const std::string native = NativePath(root);
  struct statvfs information {};
  if (::statvfs(native.c_str(), &information) != 0) {
    return SystemErrorNumber(errno);
  }
  std::error_code failure;
  const std::filesystem::path whole = std::filesystem::canonical(native, failure);
  const std::vector<std::string> roots = VolumeRoots();
  if (failure ||
      std::find(roots.begin(), roots.end(), RootOfMountPoint(whole.string())) == roots.end()) {
    return kErrorDirNotRoot;
  }
  return 0;
}

std::optional<std::uint64_t> VolumeTotalSpace(std::string_view root) {
  struct statvfs information {};
  if (::statvfs(NativePath(root).c_str(), &information) != 0) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(information.f_blocks) * information.f_frsize;
}

std::optional<Volume> VolumeOfFile(std::string_view fileName) {
  const std::string native = NativePath(fileName);
  if (native.empty() || native.front() != '/') {
    return std::nullopt;
  }
  // Links in the part of the name that exists lead to the volume; the rest is folded.
  std::error_code failure;
  const std::filesystem::path whole = std::filesystem::weakly_canonical(native, failure);
  const std::string name =
      RootOfMountPoint(failure ? std::filesystem::path(native).lexically_normal() : whole);
  std::optional<Volume> found;
  const std::vector<std::string> roots = VolumeRoots();
  for (std::size_t i = 0; i < roots.size(); ++i) {
    if (name.starts_with(roots[i]) && (!found || roots[i].size() > found->root.size())) {
      found = Volume{static_cast<std::uint32_t>(i), roots[i]};
    }
  }
  return found;
}

std::vector<std::string> VolumeRoots() {
  std::ifstream mountTable("/proc/self/mountinfo");
  return ParseVolumeRoots(mountTable);
}

// A line: id parent major:minor root MOUNT-POINT options [optional ...] - TYPE source options
std::vector<std::string> ParseVolumeRoots(std::istream& mountTable) {
  std::vector<std::string> roots;
  std::string line;
  while (std::getline(mountTable, line)) {
    std::istringstream fields(line);
    std::string mountPoint;
    for (int i = 0; i < 5; ++i) {
      fields >> mountPoint;
    }
    std::string field;
    while (fields >> field && field != "-") {
    }
    std::string type;
    if (!(fields >> type) || mountPoint.empty()) {
      continue;
    }
    const bool kernels = std::find(kKernelFileSystems.begin(), kKernelFileSystems.end(), type) !=
                         kKernelFileSystems.end();
    const std::string root = RootOfMountPoint(UnescapeOctal(mountPoint));
    if (!kernels && std::find(roots.begin(), roots.end(), root) == roots.end()) {
      roots.push_back(root);
    }
  }
  return roots;
}

}  // namespace os
