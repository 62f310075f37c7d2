// Pipe: a named pipe whose other end the test holds.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

class Pipe {
 public:
  // Not open yet. An existing pipe is used again.
  explicit Pipe(std::filesystem::path path) : path_(std::move(path)) {
    EXPECT_TRUE(::mkfifo(path_.c_str(), 0600) == 0 || std::filesystem::is_fifo(path_)) << path_;
  }
  ~Pipe() { Close(); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // Both ends, so that neither a writer nor a reader waits for another; it holds up to 1 MB.
  void Open() {
    descriptor_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(::fcntl(descriptor_, F_SETPIPE_SZ, 1 << 20), 1 << 20);
  }
  // The reading end only, which nobody reads.
  void OpenUnread() {
    descriptor_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(descriptor_, 0);
  }
  void Close() {
    if (descriptor_ >= 0) {
      ::close(std::exchange(descriptor_, -1));
    }
  }
  void Write(const std::string& bytes) const {
    ASSERT_EQ(::write(descriptor_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

 private:
  const std::filesystem::path path_;
  int descriptor_ = -1;
};
