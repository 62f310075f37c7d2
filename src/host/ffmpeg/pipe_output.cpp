#include "host/ffmpeg/pipe_output.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <thread>

extern "C" {
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"
#include "platform/os/byte_stream.h"
#include "platform/os/error_numbers.h"

namespace host::ffmpeg {
namespace {

// How long a cancelled write may take to notice.
constexpr std::chrono::milliseconds kTimeout(20);
constexpr const char* kStandardOutput = "/dev/stdout";

}  // namespace

bool PipeOutput::IsStandardOutput(const std::string& target) {
  static constexpr std::array kNames = {"-",         "pipe:",          "pipe:1", kStandardOutput,
                                        "/dev/fd/1", "/proc/self/fd/1"};
  return std::find(kNames.begin(), kNames.end(), target) != kNames.end();
}

bool PipeOutput::WritesStandardFile(const std::string& target) {
  std::error_code ignored;
  return IsStandardOutput(target) && std::filesystem::is_regular_file(kStandardOutput, ignored);
}

bool PipeOutput::Serves(const std::string& target) {
  return IsStandardOutput(target) || os::ByteStream::IsStream(target);
}

PipeOutput::PipeOutput(const std::string& target, IoDeadline& deadline) : deadline_(deadline) {
  const std::string path = IsStandardOutput(target) ? kStandardOutput : target;
  std::uint32_t error = sink_.Open(path);
  while (error == os::kErrorNotReady && !deadline_.ShouldStop()) {
    std::this_thread::sleep_for(kTimeout);
    error = sink_.Open(path);
  }
  if (error != 0) {
    throw Error(error == os::kErrorNotReady       ? AVERROR(EPIPE)
                : error == os::kErrorAccessDenied ? AVERROR(EACCES)
                                                  : AVERROR(EIO),
                error == os::kErrorNotReady ? "nobody reads" : "cannot write", target);
  }
  io_ = MakeWritingIo(this, &WriteCallback);
}

int PipeOutput::WriteCallback(void* output, std::uint8_t* bytes, int size) {
  return static_cast<PipeOutput*>(output)->Write(bytes, size);
}

int PipeOutput::Write(const std::uint8_t* bytes, int size) {
  std::size_t done = 0;
  while (done < static_cast<std::size_t>(size)) {
    if (deadline_.ShouldStop()) {
      return AVERROR_EXIT;
    }
    std::size_t count = 0;
    switch (sink_.Write({bytes + done, static_cast<std::size_t>(size) - done}, kTimeout, &count)) {
      case os::ByteSink::Result::kWritten:
        done += count;
        break;
      case os::ByteSink::Result::kFull:
        break;
      case os::ByteSink::Result::kGone:
        return AVERROR(EPIPE);
      case os::ByteSink::Result::kFailed:
        return AVERROR(EIO);
    }
  }
  return size;
}

}  // namespace host::ffmpeg
