// The registry of classes and filters: named values under keys whose parts are joined by
// backslashes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace os {

// The registry's contents in memory. Key and value names compare bytewise; the default value of a
// key has the empty name.
class RegistryTree {
 public:
  void Set(const std::string& key, const std::string& name, const std::string& value);
  std::optional<std::string> Get(const std::string& key, const std::string& name) const;
  // Removes a key with all its subkeys; false when there was none.
  bool Erase(const std::string& key);
  // Names of the keys directly under key, in order, each once.
  std::vector<std::string> Subkeys(const std::string& key) const;
  // Adds the keys that this tree does not have.
  void AddMissing(const RegistryTree& other);

  // The file form: "[key]" lines, then "name=value" lines in that key; backslash escapes for line
  // ends, "=" in names and the backslash itself. Throws std::runtime_error with the line number
  // when the text is something else.
  static RegistryTree Parse(const std::string& text);
  std::string Format() const;

 private:
  std::map<std::string, std::map<std::string, std::string>> keys_;
};

// The registry's file, over those of the installation. Update is safe against other threads and
// processes: the file is locked, changed in a copy and replaced in one step, so that a reader sees
// the old state or the new one.
class Registry {
 public:
  // file: empty when there is none; then nothing can be registered. installed: files read for keys
  // that the first does not have; they may be missing.
  explicit Registry(std::filesystem::path file, std::vector<std::filesystem::path> installed = {});
  // $TAVREL_REGISTRY alone, if it is given; else the user's own, tavrel/registry in the XDG data
  // folder, over "registry" in the installed data folders.
  static Registry OfUser();

  const std::filesystem::path& File() const { return file_; }
  // A missing file is an empty registry. Throws std::system_error or std::runtime_error.
  RegistryTree Read() const;
  // Changes the file alone. Throws likewise.
  void Update(const std::function<void(RegistryTree&)>& change);

 private:
  std::filesystem::path file_;
  std::vector<std::filesystem::path> installed_;
};

}  // namespace os
