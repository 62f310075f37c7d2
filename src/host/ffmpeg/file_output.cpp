#include "host/ffmpeg/file_output.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {
namespace {

// Half a second of 32 Mbit/s. The memory is used as far as it is filled.
constexpr int kBufferSize = 2 << 20;

}  // namespace

FileOutput::FileOutput(const std::string& path, Existing existing)
    : path_(path),
      isNew_(existing == Existing::kKept),
      io_(MakeWritingIo(this, &OnWrite, &OnSeek, kBufferSize)) {
  file_ = std::fopen(path.c_str(), isNew_ ? "wbxe" : "wbe");
  if (file_ == nullptr) {
    throw Error(AVERROR(errno), "cannot write", path);
  }
  // FFmpeg's buffer is the only one.
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

}  // namespace host::ffmpeg
