// TemporaryFolder: a folder that is gone with its holder.
#pragma once

#include <filesystem>
#include <string_view>

namespace os {

// Made empty among the system's temporary files, readable by this user only, and removed with
// everything in it by the destructor. A value of one thread; others may read the path.
class TemporaryFolder {
 public:
  // Throws std::system_error when it cannot be made.
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // What is called so in it.
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace os
