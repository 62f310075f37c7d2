// Volumes: the mounted file systems that hold files.
//
// There are no drive letters: the root of a volume is its mount point with a separator at the end,
// "\" or "\media\disc\", and its number is its place in the list of roots.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace os {

struct Volume {
  std::uint32_t number;
  std::string root;
};

// One of the system's error numbers, 0 when root is the root of a volume that can be used.
std::uint32_t CheckVolume(std::string_view root);
// Nothing when the volume cannot be asked. Bytes.
std::optional<std::uint64_t> VolumeTotalSpace(std::string_view root);
// The volume that an absolute file name lies on, whether the file exists or not; nothing for a
// relative name.
std::optional<Volume> VolumeOfFile(std::string_view fileName);
// In the order of mounting, each root once; empty when the system does not provide them.
std::vector<std::string> VolumeRoots();

// The same from a mount table of the form of /proc/self/mountinfo. Left out are file systems of the
// kernel's own, which hold no files of users.
std::vector<std::string> ParseVolumeRoots(std::istream& mountTable);

}  // namespace os
