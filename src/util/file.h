// qorp::File: a path and what can be done with the file or directory there. qorp::Drive: a volume.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "util/exceptions.h"

namespace qorp {

// A value: holds the path, never an open file. Any thread; changes of the file system between two
// calls are not noticed. Operations throw Exception with the path and the system's error number,
// unless they say something else.
class File {
 public:
  using Exception = ExceptionTemplate<File, TavrelException>;

  // path: UTF-8, parts joined by backslashes. Empty parts and "." are dropped, ".." is kept; empty
  // parts at the start stay in the first component ("\\server", "\root"). Throws Exception
  // "invalid path [...]" when nothing is left.
  explicit File(std::string_view path);

  const std::string& Path() const { return path_; }
  const std::vector<std::string>& Components() const { return components_; }

  bool Exists() const;
  bool IsDirectory() const;

  void CreateDirectory() const;
  // With the missing directories above. A file in the place of one of them is removed.
  void CreateDirectories() const;
  void RemoveFile() const;
  // With everything in it. Links are removed, not followed.
  void RemoveDirectory() const;
  // A file, a link, or a directory with everything in it; nothing when it does not exist.
  void Remove() const;

  // Calls callback(entry, isDirectory) for each entry, in the system's order.
  void Enumerate(const std::function<void(const File&, bool)>& callback) const;
  // Throws std::runtime_error "... is not a directory" for anything else.
  std::vector<File> GetEntries() const;
  // Copies the file, or the directory with everything in it, under its own name into a directory;
  // an existing file of that name is replaced. Throws std::runtime_error "cannot copy ... to ...",
  // also when a file would be copied onto itself or a directory into itself.
  void CopyTo(const File& destinationDirectory) const;

 private:
  // True when this path, or a directory above it, is the same file or directory as outer.
  bool IsSameOrWithin(const File& outer) const;

  std::vector<std::string> components_;  // not empty
  std::string path_;                     // the components joined
};

// A value: the root of a volume, which is checked once, by the constructor. Failures are Exception.
class Drive {
 public:
  using Exception = ExceptionTemplate<Drive, TavrelException>;

  // The root that a file name lies under, with its number.
  struct Root {
    std::uint32_t number;
    std::string path;
  };

  // Throws "Invalid path", "Device is not available", "Device is not ready." or "Could not create
  // drive".
  explicit Drive(std::string root);

  // Bytes.
  std::uint64_t GetTotalSpace() const;

  static Root RootOfFile(const std::string& fileName);
  // Roots of all volumes, in the system's order.
  static std::vector<std::string> GetDriveList();

 private:
  std::string root_;
};

// The text of a system error number, for a volume that cannot be used.
const char* VolumeErrorText(std::uint32_t error);

}  // namespace qorp
