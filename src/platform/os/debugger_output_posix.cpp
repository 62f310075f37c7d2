#include <atomic>
#include <cerrno>

#include <unistd.h>

#include "platform/os/debugger_output.h"

namespace os {
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
