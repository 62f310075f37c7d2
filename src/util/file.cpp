#include "util/file.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/os/error_numbers.h"
#include "platform/os/files.h"
#include "util/text_codecs.h"

namespace qorp {
namespace {

constexpr char kSeparator = '\\';

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) {
    if (&part != &parts.front()) {
      joined += kSeparator;
    }
    joined += part;
  }
  return joined;
}

void ThrowOnError(std::uint32_t error, const char* format, const std::string& path) {
  if (error != 0) {
    throw File::Exception(StringFormat("%s [%s]: Win32 error %lu", format, path.c_str(),
                                       static_cast<unsigned long>(error)));
  }
}

}  // namespace

File::File(std::string_view path) {
  std::string leading;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(kSeparator, begin), path.size());
    const std::string_view piece = path.substr(begin, end - begin);
    begin = end + 1;
    if (!components_.empty()) {
      if (!piece.empty() && piece != ".") {
        components_.emplace_back(piece);
      }
    } else if (piece.empty()) {
      leading += kSeparator;
    } else {
      components_.push_back(leading + std::string(piece));
    }
  }
  if (components_.empty()) {
    throw Exception(StringFormat("invalid path [%s]", std::string(path).c_str()));
  }
  path_ = Join(components_);
}

bool File::Exists() const {
  return os::GetFileAttributes(path_).exists;
}

bool File::IsDirectory() const {
  return os::GetFileAttributes(path_).isDirectory;
}

void File::CreateDirectory() const {
  ThrowOnError(os::MakeDirectory(path_), "could not create directory", path_);
}

void File::CreateDirectories() const {
  if (IsDirectory()) {
    return;
  }
  if (Exists()) {
    RemoveFile();
  } else if (components_.size() > 1) {
    File(Join({components_.begin(), components_.end() - 1})).CreateDirectories();
  }
  CreateDirectory();
}

void File::RemoveFile() const {
  ThrowOnError(os::DeleteFile(path_), "could not remove file", path_);
}

void File::RemoveDirectory() const {
  // The list is complete before the first entry is removed, so that removing does not disturb it.
  std::vector<File> entries;
  Enumerate([&](const File& entry, bool) { entries.push_back(entry); });
  for (const File& entry : entries) {
    entry.Remove();
  }
  ThrowOnError(os::DeleteDirectory(path_), "could not remove directory", path_);
}

void File::Remove() const {
  const os::FileAttributes attributes = os::GetFileAttributes(path_);
  if (!attributes.exists) {
    return;
  }
  if (attributes.isDirectory && !attributes.isLink) {
    RemoveDirectory();
  } else {
    RemoveFile();
  }
}

void File::Enumerate(const std::function<void(const File&, bool)>& callback) const {
  const std::uint32_t error =
      os::ListDirectory(path_, [&](const std::string& name, bool isDirectory) {
        callback(File(path_ + kSeparator + name), isDirectory);
      });
  if (error != os::kErrorFileNotFound) {
    ThrowOnError(error, "could not enumerate the contents of", path_);
  }
}

std::vector<File> File::GetEntries() const {
  if (!IsDirectory()) {
    throw std::runtime_error(path_ + " is not a directory");
  }
  std::vector<File> entries;
  Enumerate([&](const File& entry, bool) { entries.push_back(entry); });
  return entries;
}

void File::CopyTo(const File& destinationDirectory) const {
  const File target(destinationDirectory.path_ + kSeparator + components_.back());
  // Making room for the copy must not remove the original, nor may a copy be copied again.
  if (!Exists() || target.IsSameOrWithin(*this) || IsSameOrWithin(target)) {
    throw std::runtime_error("cannot copy " + path_ + " to " + target.path_);
  }
  if (IsDirectory()) {
    target.CreateDirectories();
    Enumerate([&](const File& entry, bool) { entry.CopyTo(target); });
    return;
  }
  target.Remove();
  if (os::CopyFileOver(path_, target.path_) != 0) {
    throw std::runtime_error("cannot copy " + path_ + " to " + target.path_);
  }
}

bool File::IsSameOrWithin(const File& outer) const {
  for (auto end = components_.end(); end != components_.begin(); --end) {
    if (os::IsSameFile(Join({components_.begin(), end}), outer.path_)) {
      return true;
    }
  }
  return false;
}

const char* VolumeErrorText(std::uint32_t error) {
  switch (error) {
    case os::kErrorFileNotFound:
    case os::kErrorPathNotFound:
    case os::kErrorInvalidName:
      return "Invalid path";
    case os::kErrorAccessDenied:
      return "Device is not available";
    case os::kErrorNotReady:
      return "Device is not ready.";
    default:
      return "Could not create drive";
  }
}

Drive::Drive(std::string root) : root_(std::move(root)) {
  if (const std::uint32_t error = os::CheckVolume(root_); error != 0) {
    throw Exception(VolumeErrorText(error));
  }
}

std::uint64_t Drive::GetTotalSpace() const {
  const std::optional<std::uint64_t> bytes = os::VolumeTotalSpace(root_);
  if (!bytes) {
    throw Exception("Could not get total space.");
  }
  return *bytes;
}

Drive::Root Drive::RootOfFile(const std::string& fileName) {
  const std::optional<os::Volume> volume = os::VolumeOfFile(fileName);
  if (!volume) {
    throw Exception(
        StringFormat("Could not get drive number from file name %s.", fileName.c_str()));
  }
  return {volume->number, volume->root};
}

std::vector<std::string> Drive::GetDriveList() {
  std::vector<std::string> roots = os::VolumeRoots();
  if (roots.empty()) {
    throw Exception("Could not get drive list");
  }
  return roots;
}

}  // namespace qorp
