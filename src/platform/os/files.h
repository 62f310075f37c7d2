// Files and directories, and the volumes that hold them.
//
// Paths are UTF-8 in the system's form, their parts joined by backslashes; forward slashes are
// accepted too, so a native path may be given unchanged. A name that contains a backslash cannot be
// expressed. Operations return one of the system's error numbers, 0 when they succeeded.
//
// There are no drive letters: the root of a volume is its mount point with a separator at the end,
// "\\" or "\\media\\disc\\", and its number is its place in the list of roots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <istream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace os {

// The form that the operating system underneath takes, and back.
std::string NativePath(std::string_view path);
std::string SystemPath(std::string_view nativePath);

struct FileAttributes {
  bool exists = false;       // a link exists even when what it points to does not
  bool isDirectory = false;  // or a link to one
  bool isLink = false;
};

// A path that cannot be examined counts as missing.
FileAttributes GetFileAttributes(std::string_view path);
// True when both name one and the same existing file or directory.
bool IsSameFile(std::string_view one, std::string_view other);

std::uint32_t MakeDirectory(std::string_view path);
// A link is deleted, not what it points to.
std::uint32_t DeleteFile(std::string_view path);
// The directory must be empty.
std::uint32_t DeleteDirectory(std::string_view path);
// Replaces an existing file, keeps the permissions of the source.
std::uint32_t CopyFileOver(std::string_view from, std::string_view to);
// Replaces the contents in one step: the text is written to a file beside it, synchronised to the
// disk and renamed. Keeps the permissions of an existing file. Native path.
std::uint32_t ReplaceFile(const std::filesystem::path& path, std::string_view text);
// Calls callback(name, isDirectory) for every entry but "." and "..", in the system's order.
// Entries whose names hold a backslash are left out. Exceptions of the callback propagate.
std::uint32_t ListDirectory(std::string_view path,
                            const std::function<void(const std::string&, bool)>& callback);

// An open file that is read and written at given offsets, shared with other processes. One thread
// at a time.
class File {
 public:
  enum class Access { kRead, kReadWrite };

  File() = default;
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens an existing file without truncating it.
  std::uint32_t Open(std::string_view path, Access access);
  // Creates a file that does not exist, opened for reading and writing; kErrorFileExists otherwise.
  std::uint32_t Create(std::string_view path);
  void Close();
  bool IsOpen() const { return descriptor_ >= 0; }

  // Bytes read into buffer in *count, fewer than wanted only at the end of the file.
  std::uint32_t ReadAt(std::uint64_t offset, std::span<char> buffer, std::size_t* count) const;
  std::uint32_t WriteAt(std::uint64_t offset, std::string_view bytes);
  std::uint32_t GetSize(std::uint64_t* bytes) const;
  // True while the path leads to this open file.
  bool IsAt(std::string_view path) const;

 private:
  std::uint32_t OpenWith(std::string_view path, int flags);

  int descriptor_ = -1;
};

// An advisory lock on a file, against other writers in this process and in others. The system
// removes it when its owner ends. One thread at a time.
class FileLock {
 public:
  FileLock() = default;
  ~FileLock() { Release(); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Takes the lock of a file, which is created when there is none; never waits.
  // kErrorSharingViolation when another process has it. A file system without locks grants it to
  // every caller.
  std::uint32_t Take(std::string_view path);
  void Release();
  // Whether the lock is held and the path still leads to the locked file.
  bool IsHeldAt(std::string_view path) const;

 private:
  int descriptor_ = -1;
};

// A new folder among the system's temporary files, readable by this user only. The destructor
// removes it with its contents. One thread; others may read the path.
class TemporaryFolder {
 public:
  // Throws std::system_error when it cannot be made.
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // The path of an entry of that name.
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

struct Volume {
  std::uint32_t number;
  std::string root;
};

// One of the system's error numbers, 0 when root is the root of a volume that can be used.
std::uint32_t CheckVolume(std::string_view root);
// Bytes; none when the volume cannot be queried.
std::optional<std::uint64_t> VolumeTotalSpace(std::string_view root);
// The volume that an absolute file name lies on, whether the file exists or not; none for a
// relative name.
std::optional<Volume> VolumeOfFile(std::string_view fileName);
// In the order of mounting, each root once; empty when the system does not provide them.
std::vector<std::string> VolumeRoots();

// The same from a mount table in the form of /proc/self/mountinfo. The kernel's pseudo file
// systems, which hold no files of users, are left out.
std::vector<std::string> ParseVolumeRoots(std::istream& mountTable);

}  // namespace os
