// Descriptor: owns a file descriptor.
#pragma once

#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace os {

// -1 is none. The destructor closes it.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  // A file that the flags create is readable by everybody. None, with errno set, when it cannot be
  // opened.
  Descriptor(const std::filesystem::path& file, int flags)
      : number_(::open(file.c_str(), flags | O_CLOEXEC, 0644)) {}
  ~Descriptor() {
    if (number_ >= 0) {
      ::close(number_);
    }
  }
  Descriptor(Descriptor&& other) noexcept : number_(other.Take()) {}
  Descriptor& operator=(Descriptor&&) = delete;

  bool IsOpen() const { return number_ >= 0; }
  int get() const { return number_; }
  int Take() { return std::exchange(number_, -1); }

 private:
  int number_;
};

}  // namespace os
