#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/byte_stream.h"
#include "platform/os/error_numbers.h"

namespace os {

ByteStream::~ByteStream() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

bool ByteStream::IsStream(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
         !S_ISDIR(status.st_mode) && !S_ISBLK(status.st_mode);
}

std::uint32_t ByteStream::Open(const std::string& path) {
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  return descriptor_ >= 0 ? 0 : SystemErrorNumber(errno);
}

ByteStream::Result ByteStream::Read(std::span<std::uint8_t> buffer, std::chrono::milliseconds wait,
                                    std::size_t* count) {
  // Until a writer has opened the pipe, poll reports nothing, but read reports its end.
  pollfd poll{descriptor_, POLLIN, 0};
  const int ready = ::poll(&poll, 1, static_cast<int>(wait.count()));
  if (ready == 0 || (ready < 0 && errno == EINTR)) {
    return Result::kSilence;
  }
  const ssize_t got = ready > 0 ? ::read(descriptor_, buffer.data(), buffer.size()) : -1;
  if (got > 0) {
    *count = static_cast<std::size_t>(got);
    return Result::kData;
  }
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return Result::kSilence;
  }
  return got == 0 ? Result::kEnd : Result::kFailed;
}

namespace {

// Writes without SIGPIPE: the signal is blocked meanwhile, and consumed if this write raised it.
ssize_t WriteQuietly(int descriptor, std::span<const std::uint8_t> bytes) {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  sigset_t pending;
  sigpending(&pending);
  const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
  sigset_t former;
  pthread_sigmask(SIG_BLOCK, &pipe, &former);
  const ssize_t put = ::write(descriptor, bytes.data(), bytes.size());
  const int error = errno;
  if (put < 0 && error == EPIPE && !wasPending) {
    const timespec now{};
    sigtimedwait(&pipe, nullptr, &now);
  }
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  errno = error;
  return put;
}

}  // namespace

ByteSink::~ByteSink() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

std::uint32_t ByteSink::Open(const std::string& path) {
  descriptor_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor_ < 0 && errno == ENXIO) {
    return kErrorNotReady;
  }
  return descriptor_ >= 0 ? 0 : SystemErrorNumber(errno);
}

ByteSink::Result ByteSink::Write(std::span<const std::uint8_t> bytes,
                                 std::chrono::milliseconds wait, std::size_t* count) {
  pollfd poll{descriptor_, POLLOUT, 0};
  const int ready = ::poll(&poll, 1, static_cast<int>(wait.count()));
  if (ready == 0 || (ready < 0 && errno == EINTR)) {
    return Result::kFull;
  }
  if (ready < 0) {
    return Result::kFailed;
  }
  const ssize_t put = WriteQuietly(descriptor_, bytes);
  if (put > 0) {
    *count = static_cast<std::size_t>(put);
    return Result::kWritten;
  }
  if (put < 0 && (errno == EAGAIN || errno == EINTR)) {
    return Result::kFull;
  }
  return put < 0 && errno == EPIPE ? Result::kGone : Result::kFailed;
}

}  // namespace os
