// A file system whose calls never return, by the name of the file: open*, create*, write*, close*.
// As a network's, it releases processes that are killed.
#define FUSE_USE_VERSION 31
#include <cerrno>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include <fuse.h>

namespace {

std::mutex lock;
std::set<std::string> created;  // guarded by lock

bool IsStuck(const char* path, std::string_view call) {
  return std::string_view(path).substr(1).starts_with(call);
}

int Hang() {
  while (fuse_interrupted() == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // A call that returns to its caller would be a mount that recovers.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return -EINTR;
}

int GetAttributes(const char* path, struct stat* found, fuse_file_info* /*file*/) {
  const std::lock_guard guard(lock);
  const bool isRoot = std::string_view(path) == "/";
  if (!isRoot && !IsStuck(path, "open") && !created.contains(path)) {
    return -ENOENT;
  }
  *found = {};
  found->st_mode = isRoot ? S_IFDIR | 0777 : S_IFREG | 0666;
  found->st_nlink = 1;
  return 0;
}

int Open(const char* path, fuse_file_info* /*file*/) {
  return IsStuck(path, "open") ? Hang() : 0;
}

int Create(const char* path, mode_t /*mode*/, fuse_file_info* /*file*/) {
  if (IsStuck(path, "create")) {
    return Hang();
  }
  const std::lock_guard guard(lock);
  created.insert(path);
  return 0;
}

int Write(const char* path, const char* /*bytes*/, std::size_t size, off_t /*at*/,
          fuse_file_info* /*file*/) {
  return IsStuck(path, "write") ? Hang() : static_cast<int>(size);
}

int Flush(const char* path, fuse_file_info* /*file*/) {
  return IsStuck(path, "close") ? Hang() : 0;
}

}  // namespace

int main(int argc, char** argv) {
  fuse_operations operations{};
  operations.getattr = GetAttributes;
  operations.open = Open;
  operations.create = Create;
  operations.write = Write;
  operations.flush = Flush;
  return fuse_main(argc, argv, &operations, nullptr);
}
