#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <string>

#include <sys/ioctl.h>
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

// The system's colours count blue, green, red; the terminal's red, green, blue.
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

}  // namespace os
