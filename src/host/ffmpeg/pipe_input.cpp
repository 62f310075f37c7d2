#include "host/ffmpeg/pipe_input.h"

#include <chrono>
#include <cstddef>

extern "C" {
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"
#include "platform/os/error_numbers.h"

namespace host::ffmpeg {
namespace {

// How long a cancelled read may take to notice.
constexpr std::chrono::milliseconds kTimeout(20);

bool IsStandardInput(const std::string& source) {
  return source == "-" || source == "pipe:" || source == "pipe:0";
}

int ToAvError(std::uint32_t systemError) {
  switch (systemError) {
    case os::kErrorFileNotFound:
    case os::kErrorPathNotFound:
      return AVERROR(ENOENT);
    case os::kErrorAccessDenied:
      return AVERROR(EACCES);
    default:
      return AVERROR(EIO);
  }
}

}  // namespace

bool PipeInput::Serves(const std::string& source) {
  return IsStandardInput(source) || os::ByteStream::IsStream(source);
}

PipeInput::PipeInput(const std::string& source, IoDeadline& deadline) : deadline_(deadline) {
  if (const std::uint32_t error = stream_.Open(IsStandardInput(source) ? "/dev/stdin" : source);
      error != 0) {
    throw Error(ToAvError(error), "cannot open", source);
  }
  io_ = MakeReadingIo(this, &ReadCallback);
}

int PipeInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<PipeInput*>(input)->Read(buffer, size);
}

int PipeInput::Read(std::uint8_t* buffer, int size) {
  while (!deadline_.ShouldStop()) {
    std::size_t count = 0;
    switch (stream_.Read({buffer, static_cast<std::size_t>(size)}, kTimeout, &count)) {
      case os::ByteStream::Result::kData:
        return static_cast<int>(count);
      case os::ByteStream::Result::kSilence:
        break;
      case os::ByteStream::Result::kEnd:
        return AVERROR_EOF;
      case os::ByteStream::Result::kFailed:
        return AVERROR(EIO);
    }
  }
  return AVERROR_EXIT;
}

}  // namespace host::ffmpeg
