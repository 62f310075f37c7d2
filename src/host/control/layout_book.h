// LayoutBook: the layouts that operators saved, in a file beside the wall file.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "host/config/wall.h"

namespace host::control {

// "wall.layouts.toml" for "wall.toml": sections [layout.NAME], as in a wall file. Application's
// thread.
class LayoutBook {
 public:
  explicit LayoutBook(const std::filesystem::path& wallFile);

  // Empty when there is no file yet. Throws CommandError when it cannot be read or has a mistake.
  std::map<std::string, config::Layout> Read(const config::Canvas& canvas) const;
  // Whole or not at all: written beside the file, flushed to the disk and renamed. Throws
  // CommandError.
  void Write(const std::map<std::string, config::Layout>& layouts) const;

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
};

}  // namespace host::control
