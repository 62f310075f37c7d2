#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace os {
namespace {

constexpr char kSeparator = '\\';

bool ParentExists(const std::string& nativePath) {
  const std::filesystem::path parent = std::filesystem::path(nativePath).parent_path();
  struct stat ignored {};
  return parent.empty() || ::stat(parent.c_str(), &ignored) == 0;
}

// The system distinguishes a missing file from a missing path to it.
std::uint32_t PathError(const std::string& nativePath, int error) {
  return error == ENOENT && !ParentExists(nativePath) ? kErrorPathNotFound
                                                      : SystemErrorNumber(error);
}

bool LeadsTo(std::string_view path, int descriptor) {
  struct stat mine {};
  struct stat other {};
  return ::fstat(descriptor, &mine) == 0 && ::stat(NativePath(path).c_str(), &other) == 0 &&
         mine.st_dev == other.st_dev && mine.st_ino == other.st_ino;
}

}  // namespace

std::string NativePath(std::string_view path) {
  std::string native(path);
  std::replace(native.begin(), native.end(), kSeparator, '/');
  return native;
}

std::string SystemPath(std::string_view nativePath) {
  std::string path(nativePath);
  std::replace(path.begin(), path.end(), '/', kSeparator);
  return path;
}

FileAttributes GetFileAttributes(std::string_view path) {
  const std::string native = NativePath(path);
  struct stat status {};
  FileAttributes attributes;
  if (::lstat(native.c_str(), &status) != 0) {
    return attributes;
  }
  attributes.exists = true;
  attributes.isLink = S_ISLNK(status.st_mode);
  if (!attributes.isLink || ::stat(native.c_str(), &status) == 0) {
    attributes.isDirectory = S_ISDIR(status.st_mode);
  }
  return attributes;
}

bool IsSameFile(std::string_view one, std::string_view other) {
  struct stat first {};
  struct stat second {};
  return ::stat(NativePath(one).c_str(), &first) == 0 &&
         ::stat(NativePath(other).c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

std::uint32_t MakeDirectory(std::string_view path) {
  if (::mkdir(NativePath(path).c_str(), 0777) == 0) {
    return 0;
  }
  switch (errno) {
    case ENOENT:
    case ENOTDIR:
      return kErrorPathNotFound;
    case EEXIST:
      return kErrorAlreadyExists;
    default:
      return SystemErrorNumber(errno);
  }
}

std::uint32_t DeleteFile(std::string_view path) {
  const std::string native = NativePath(path);
  if (::unlink(native.c_str()) == 0) {
    return 0;
  }
  return errno == EISDIR ? kErrorAccessDenied : PathError(native, errno);
}

std::uint32_t DeleteDirectory(std::string_view path) {
  const std::string native = NativePath(path);
  return ::rmdir(native.c_str()) == 0 ? 0 : PathError(native, errno);
}

std::uint32_t CopyFileOver(std::string_view from, std::string_view to) {
  const std::string target = NativePath(to);
  std::error_code failure;
  std::filesystem::copy_file(NativePath(from), target,
                             std::filesystem::copy_options::overwrite_existing, failure);
  return PathError(target, failure.value());
}

std::uint32_t ReplaceFile(const std::filesystem::path& path, std::string_view text) {
  // A link stays, and what it points to is replaced.
  std::error_code ignored;
  std::filesystem::path target = std::filesystem::weakly_canonical(path, ignored);
  target = target.empty() ? path : target;
  const std::string partial = target.string() + ".part";
  struct stat former {};
  const bool exists = ::stat(target.c_str(), &former) == 0;
  const int descriptor = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    return PathError(partial, errno);
  }
  int error = exists && ::fchmod(descriptor, former.st_mode & 07777) != 0 ? errno : 0;
  while (error == 0 && !text.empty()) {
    const ssize_t count = ::write(descriptor, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  error = error == 0 && ::fsync(descriptor) != 0 ? errno : error;
  ::close(descriptor);
  if (error == 0 && ::rename(partial.c_str(), target.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    ::unlink(partial.c_str());
  }
  return SystemErrorNumber(error);
}

std::uint32_t ListDirectory(std::string_view path,
                            const std::function<void(const std::string&, bool)>& callback) {
  std::error_code failure;
  std::filesystem::directory_iterator entry(NativePath(path), failure);
  if (failure) {
    return failure.value() == ENOENT ? kErrorPathNotFound : SystemErrorNumber(failure.value());
  }
  // A failure further on ends the list.
  for (const std::filesystem::directory_iterator end; !failure && entry != end;
       entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (name.find(kSeparator) == std::string::npos) {
      callback(name, GetFileAttributes(entry->path().string()).isDirectory);
    }
  }
  return 0;
}

File::~File() {
  Close();
}

std::uint32_t File::OpenWith(std::string_view path, int flags) {
  Close();
  const std::string native = NativePath(path);
  descriptor_ = ::open(native.c_str(), flags | O_CLOEXEC, 0666);
  if (descriptor_ >= 0) {
    return 0;
  }
  return errno == EISDIR ? kErrorAccessDenied : PathError(native, errno);
}

std::uint32_t File::Open(std::string_view path, Access access) {
  return OpenWith(path, access == Access::kRead ? O_RDONLY : O_RDWR);
}

std::uint32_t File::Create(std::string_view path) {
  return OpenWith(path, O_RDWR | O_CREAT | O_EXCL);
}

void File::Close() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
    descriptor_ = -1;
  }
}

std::uint32_t File::ReadAt(std::uint64_t offset, std::span<char> buffer, std::size_t* count) const {
  *count = 0;
  while (*count < buffer.size()) {
    const ssize_t got = ::pread(descriptor_, buffer.data() + *count, buffer.size() - *count,
                                static_cast<off_t>(offset + *count));
    if (got == 0) {
      break;
    }
    if (got > 0) {
      *count += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return SystemErrorNumber(errno);
    }
  }
  return 0;
}

std::uint32_t File::WriteAt(std::uint64_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put =
        ::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (put >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(put));
      offset += static_cast<std::size_t>(put);
    } else if (errno != EINTR) {
      return SystemErrorNumber(errno);
    }
  }
  return 0;
}

std::uint32_t File::GetSize(std::uint64_t* bytes) const {
  struct stat status {};
  if (::fstat(descriptor_, &status) != 0) {
    return SystemErrorNumber(errno);
  }
  *bytes = static_cast<std::uint64_t>(status.st_size);
  return 0;
}

bool File::IsAt(std::string_view path) const {
  return LeadsTo(path, descriptor_);
}

std::uint32_t FileLock::Take(std::string_view path) {
  Release();
  const std::string native = NativePath(path);
  descriptor_ = ::open(native.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (descriptor_ < 0) {
    return errno == EISDIR ? kErrorAccessDenied : PathError(native, errno);
  }
  while (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      Release();
      return kErrorSharingViolation;
    }
    if (errno != EINTR) {
      break;
    }
  }
  return 0;
}

void FileLock::Release() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
    descriptor_ = -1;
  }
}

bool FileLock::IsHeldAt(std::string_view path) const {
  return descriptor_ >= 0 && LeadsTo(path, descriptor_);
}

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "tavrel-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot make a folder like " + name);
  }
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

namespace {

// The kernel's pseudo file systems.
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
  // Links in the existing part of the name are followed; the rest is normalised.
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
