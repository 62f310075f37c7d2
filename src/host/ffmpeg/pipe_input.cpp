#include "host/ffmpeg/pipe_input.h"

#include <cerrno>
#include <filesystem>
#include <new>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {
namespace {

constexpr int kBufferSize = 64 * 1024;
// How long a cancelled read may take to notice.
constexpr int kPatience = 20;  // milliseconds

bool IsStandardInput(const std::string& source) {
  return source == "-" || source == "pipe:" || source == "pipe:0";
}

}  // namespace

bool PipeInput::Serves(const std::string& source) {
  if (IsStandardInput(source)) {
    return true;
  }
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::status(source, ignored);
  return std::filesystem::is_fifo(status) || std::filesystem::is_character_file(status);
}

PipeInput::PipeInput(const std::string& source, IoDeadline& deadline) : deadline_(deadline) {
  if (IsStandardInput(source)) {
    descriptor_ = STDIN_FILENO;
  } else {
    descriptor_ = open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    owned_ = true;
  }
  if (descriptor_ < 0) {
    Check(AVERROR(errno), "cannot open", source);
  }
  auto* const buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
  io_.reset(avio_alloc_context(buffer, kBufferSize, 0, this, &ReadCallback, nullptr, nullptr));
  if (io_ == nullptr) {
    av_free(buffer);
    throw std::bad_alloc();
  }
}

PipeInput::~PipeInput() {
  if (owned_ && descriptor_ >= 0) {
    close(descriptor_);
  }
}

int PipeInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<PipeInput*>(input)->Read(buffer, size);
}

int PipeInput::Read(std::uint8_t* buffer, int size) {
  while (!deadline_.ShouldStop()) {
    pollfd waiting{descriptor_, POLLIN, 0};
    const int ready = poll(&waiting, 1, kPatience);
    if (ready < 0 && errno != EINTR) {
      return AVERROR(errno);
    }
    if (ready <= 0) {
      continue;
    }
    const ssize_t got = read(descriptor_, buffer, static_cast<std::size_t>(size));
    if (got > 0) {
      return static_cast<int>(got);
    }
    if (got == 0) {
      return AVERROR_EOF;
    }
    if (errno != EAGAIN && errno != EINTR) {
      return AVERROR(errno);
    }
  }
  return AVERROR_EXIT;
}

}  // namespace host::ffmpeg
