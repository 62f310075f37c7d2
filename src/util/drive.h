// qorp::Drive: a volume.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/exceptions.h"

namespace qorp {

// A value: the root of a volume that was there when the Drive was made. Failures are Exception.
class Drive {
 public:
  using Exception = ExceptionTemplate<Drive, TavrelException>;

  // The root that a file name lies under, with its number.
  struct Root {
    std::uint32_t number;
    std::string path;
  };

  // Checks the volume. Throws "Invalid path", "Device is not available", "Device is not ready." or
  // "Could not create drive".
  explicit Drive(std::string root);

  const std::string& GetRoot() const { return root_; }
  // Bytes.
  std::uint64_t GetTotalSpace() const;

  static Root RootOfFile(const std::string& fileName);
  // Roots of all volumes, in the system's order.
  static std::vector<std::string> GetDriveList();

 private:
  std::string root_;
};

// Why a volume with one of the system's error numbers cannot be used.
const char* VolumeErrorText(std::uint32_t error);

}  // namespace qorp
