#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/console.h"

namespace os {
namespace {

bool WantsColour(int descriptor) {
  // Nothing in the process changes the environment.
  const char* const noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  const char* const terminal = std::getenv("TERM");      // NOLINT(concurrency-mt-unsafe)
  return IsTerminal(descriptor) && (noColour == nullptr || *noColour == '\0') &&
         (terminal == nullptr || std::string_view(terminal) != "dumb");
}

// From the lowest bit, the system's colours are blue, green, red; the terminal's red, green, blue.
std::string ColourSequence(std::uint16_t colour) {
  const int number = ((colour & 4) >> 2) | (colour & 2) | ((colour & 1) << 2);
  const bool bright = (colour & 8) != 0;
  return "\x1b[" + std::to_string((bright ? 90 : 30) + number) + "m";
}

}  // namespace

bool IsTerminal(int descriptor) {
  return ::isatty(descriptor) == 1;
}

int ConsoleColumns(int descriptor) {
  constexpr int kUsual = 80;
  winsize size{};
  return ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

Console::Console() : Console(STDERR_FILENO) {}

Console::Console(int descriptor) : descriptor_(descriptor), colour_(WantsColour(descriptor)) {}

Console::Console(std::ostream& stream, bool colour) : stream_(&stream), colour_(colour) {}

Console::~Console() {
  if (changed_) {
    Write("\x1b[0m");
  }
}

void Console::WriteLine(std::uint16_t colour, std::string_view line) {
  std::string text;
  if (colour_) {
    text = ColourSequence(colour);
    changed_ = true;
  }
  text.append(line);
  text += '\n';
  Write(text);
}

void Console::Write(std::string_view text) const {
  if (stream_ != nullptr) {
    stream_->clear();  // one that failed is tried again
    stream_->write(text.data(), static_cast<std::streamsize>(text.size())).flush();
    return;
  }
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor_, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return;
    }
  }
}

namespace {

std::atomic<DebuggerOutputCapture*> currentCapture{nullptr};

}  // namespace

void WriteDebuggerOutput(std::string_view text) {
  if (DebuggerOutputCapture* const capture = currentCapture) {
    const os::MutexLock guard(capture->lock_);
    capture->pieces_.emplace_back(text);
    return;
  }
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return;
    }
  }
}

DebuggerOutputCapture::DebuggerOutputCapture() {
  currentCapture = this;
}

DebuggerOutputCapture::~DebuggerOutputCapture() {
  currentCapture = nullptr;
}

std::vector<std::string> DebuggerOutputCapture::Pieces() const {
  const os::MutexLock guard(lock_);
  return pieces_;
}

std::string DebuggerOutputCapture::Text() const {
  const os::MutexLock guard(lock_);
  std::string text;
  for (const std::string& piece : pieces_) {
    text += piece;
  }
  return text;
}

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kFlushAt = 4096;
constexpr std::size_t kMaxWaiting = 1 << 18;
// A pipe that poll reports as ready takes this many bytes without blocking (PIPE_BUF).
constexpr std::size_t kPiece = 4096;

}  // namespace

// A pipe or terminal may be shared with programs that expect writes to block, so it is opened again
// for non-blocking writes.
StandardStream::StandardStream(int descriptor) : given_(descriptor), descriptor_(descriptor) {
  struct stat status {};
  if (::fstat(given_, &status) != 0) {
    return;
  }
  if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::kSocket;
  } else if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
    const std::string path = "/proc/self/fd/" + std::to_string(given_);
    const int own = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    kind_ = own >= 0 ? Kind::kNonBlocking : Kind::kShared;
    descriptor_ = own >= 0 ? own : given_;
  }
}

StandardStream::~StandardStream() {
  if (descriptor_ != given_) {
    ::close(descriptor_);
  }
}

void StandardStream::LimitWaiting(milliseconds timeout, milliseconds afterFailure) {
  const os::MutexLock guard(lock_);
  timeout_ = timeout;
  afterFailure_ = afterFailure;
}

void StandardStream::LimitWaiting(std::ostream& stream, milliseconds timeout,
                                  milliseconds afterFailure) {
  if (auto* const buffer = dynamic_cast<StandardStream*>(stream.rdbuf())) {
    buffer->LimitWaiting(timeout, afterFailure);
  }
}

int StandardStream::sync() {
  const os::MutexLock guard(lock_);
  return WriteWaiting() ? 0 : -1;
}

StandardStream::int_type StandardStream::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof())) {
    return traits_type::not_eof(character);
  }
  const char text = traits_type::to_char_type(character);
  return Put(&text, 1) ? character : traits_type::eof();
}

std::streamsize StandardStream::xsputn(const char* text, std::streamsize count) {
  return Put(text, static_cast<std::size_t>(count)) ? count : 0;
}

bool StandardStream::Put(const char* text, std::size_t count) {
  const os::MutexLock guard(lock_);
  if (waiting_.size() >= kFlushAt && !WriteWaiting() && waiting_.size() >= kMaxWaiting) {
    return false;
  }
  waiting_.append(text, count);
  return true;
}

bool StandardStream::WriteWaiting() {
  const milliseconds timeout = isStuck_ ? afterFailure_ : timeout_;
  const Clock::time_point end = Clock::now() + timeout;
  isStuck_ = false;
  if (std::exchange(isCut_, isCut_ && waiting_.empty()) && !waiting_.empty()) {
    waiting_.insert(waiting_.begin(), '\n');
  }
  while (!waiting_.empty()) {
    int error = 0;
    const long put = WriteOnce(&error);
    if (put > 0) {
      isInLine_ = waiting_[static_cast<std::size_t>(put) - 1] != '\n';
      waiting_.erase(0, static_cast<std::size_t>(put));
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
      const milliseconds left =
          timeout < milliseconds(0)
              ? timeout
              : std::max(milliseconds(0),
                         std::chrono::duration_cast<milliseconds>(end - Clock::now()));
      if (!WaitForReader(left)) {
        isStuck_ = true;
        return false;
      }
    } else if (error != EINTR) {
      isCut_ = isInLine_;
      waiting_.clear();
      return false;
    }
  }
  return true;
}

long StandardStream::WriteOnce(int* error) const {
  long put = -1;
  if (kind_ == Kind::kSocket) {
    put = ::send(descriptor_, waiting_.data(), waiting_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } else if (kind_ == Kind::kShared) {
    // Not quite safe: another writer may fill the pipe in between.
    const bool isReady = WaitForReader(milliseconds(0));
    errno = EAGAIN;
    put = isReady ? ::write(descriptor_, waiting_.data(), std::min(waiting_.size(), kPiece)) : -1;
  } else {
    put = ::write(descriptor_, waiting_.data(), waiting_.size());
  }
  *error = put < 0 ? errno : 0;
  return put;
}

bool StandardStream::WaitForReader(milliseconds limit) const {
  pollfd waiting{descriptor_, POLLOUT, 0};
  // The next write reports an error.
  return ::poll(&waiting, 1, static_cast<int>(limit.count())) > 0;
}

bool FlushWithin(std::ostream& stream, milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    stream.clear();
    if (stream.flush().good()) {
      return true;
    }
    if (Clock::now() >= end) {
      return false;
    }
  }
}

}  // namespace os
