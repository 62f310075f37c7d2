#include "host/ffmpeg/outputs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <thread>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"
#include "platform/os/byte_stream.h"
#include "platform/os/error_numbers.h"

namespace host::ffmpeg {
namespace {

// Half a second of 32 Mbit/s. Only the filled part uses memory.
constexpr int kBufferSize = 2 << 20;

// How long a cancelled write may take to notice.
constexpr std::chrono::milliseconds kWriteTimeout(20);
constexpr const char* kStandardOutput = "/dev/stdout";

}  // namespace

FileOutput::FileOutput(const std::string& path, Existing existing)
    : path_(path),
      isNew_(existing == Existing::kKept),
      io_(MakeWritingIo(this, &OnWrite, &OnSeek, kBufferSize)) {
  file_ = std::fopen(path.c_str(), isNew_ ? "wbxe" : "wbe");
  if (file_ == nullptr) {
    throw Error(AVERROR(errno), "cannot write", path);
  }
  // The I/O context has a buffer already.
  std::setvbuf(file_, nullptr, _IONBF, 0);
}

FileOutput::FileOutput()
    : path_("-"),
      file_(stdout),
      isOwn_(false),
      io_(MakeWritingIo(this, &OnWrite, nullptr, kBufferSize)) {}

std::unique_ptr<FileOutput> FileOutput::OfStandardOutput() {
  return std::unique_ptr<FileOutput>(new FileOutput());
}

FileOutput::~FileOutput() {
  if (file_ != nullptr && isOwn_) {
    std::fclose(file_);
  }
  if (isNew_ && (written_ == 0 || discarded_)) {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
}

void FileOutput::Close() {
  avio_flush(io_.get());
  Check(io_->error, "cannot finish", path_);
  std::FILE* const file = file_;
  file_ = nullptr;
  if ((isOwn_ ? std::fclose(file) : std::fflush(file)) != 0) {
    throw Error(AVERROR(errno), "cannot finish", path_);
  }
}

int FileOutput::OnWrite(void* output, std::uint8_t* bytes, int size) {
  auto& self = *static_cast<FileOutput*>(output);
  const std::size_t put = std::fwrite(bytes, 1, static_cast<std::size_t>(size), self.file_);
  self.written_ += static_cast<std::int64_t>(put);
  if (put < static_cast<std::size_t>(size) || (!self.isOwn_ && std::fflush(self.file_) != 0)) {
    return AVERROR(errno);
  }
  return size;
}

std::int64_t FileOutput::OnSeek(void* output, std::int64_t offset, int whence) {
  return static_cast<FileOutput*>(output)->Seek(offset, whence);
}

std::int64_t FileOutput::Seek(std::int64_t offset, int whence) {
  if (whence == AVSEEK_SIZE) {
    const long here = std::ftell(file_);
    const bool found = here >= 0 && std::fseek(file_, 0, SEEK_END) == 0;
    const long size = found ? std::ftell(file_) : -1;
    return found && std::fseek(file_, here, SEEK_SET) == 0 ? size : AVERROR(errno);
  }
  const bool moved = std::fseek(file_, static_cast<long>(offset), whence & ~AVSEEK_FORCE) == 0;
  return moved ? std::ftell(file_) : AVERROR(errno);
}

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
    std::this_thread::sleep_for(kWriteTimeout);
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
    switch (
        sink_.Write({bytes + done, static_cast<std::size_t>(size) - done}, kWriteTimeout, &count)) {
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
