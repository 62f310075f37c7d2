#include "util/drive.h"

#include <utility>

#include "platform/os/error_numbers.h"
#include "platform/os/volumes.h"
#include "util/string_format.h"

namespace qorp {

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
