// Files and pipes that are written in place of FFmpeg's own protocols.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/byte_stream.h"

namespace host::ffmpeg {

// As FFmpeg's file protocol, with two additions. A new file is created and opened in one step, so
// that no existing file is truncated, not even one created in between. What the muxer flushes at
// once (a cluster, a fragment, a frame in transport packets) reaches the file in one write, so that
// a killed program leaves no half of it.
//
// Owned by its writer, on one thread, and must outlive the format context that writes through io().
class FileOutput {
 public:
  enum class Existing {
    kKept,      // an existing file is an error: AVERROR(EEXIST)
    kReplaced,  // ... is emptied
  };

  // Throws Error.
  FileOutput(const std::string& path, Existing existing);
  // The standard output of the process, which is a file. Written from its position, not seekable.
  static std::unique_ptr<FileOutput> OfStandardOutput();
  // Closes the file; a new file is removed if nothing was written to it, or after Discard.
  ~FileOutput();
  FileOutput(const FileOutput&) = delete;
  FileOutput& operator=(const FileOutput&) = delete;

  AVIOContext* io() const { return io_.get(); }
  const std::string& path() const { return path_; }
  // Bytes written to the file; parts that were written twice count twice. Any thread.
  std::int64_t written() const { return written_; }
  // The file will contain nothing of use.
  void Discard() { discarded_ = true; }
  // Writes what is buffered and closes the file. Throws Error.
  void Close();

 private:
  FileOutput();

  static int OnWrite(void* output, std::uint8_t* bytes, int size);
  static std::int64_t OnSeek(void* output, std::int64_t offset, int whence);
  std::int64_t Seek(std::int64_t offset, int whence);

  std::string path_;
  std::FILE* file_ = nullptr;
  bool isOwn_ = true;
  bool isNew_ = false;
  bool discarded_ = false;
  std::atomic<std::int64_t> written_{0};
  CallbackIo io_;
};

// FFmpeg writes files with blocking calls; a pipe without a reader would block its writer
// indefinitely, from its opening on. This output checks its deadline while it waits for its reader.
//
// Owned by its writer, and must outlive the format context that writes through io().
class PipeOutput {
 public:
  // Whether a target is a pipe, a device or the standard output ("-" or "pipe:").
  static bool Serves(const std::string& target);
  // Whether it is the standard output, by any of its names.
  static bool IsStandardOutput(const std::string& target);
  // ... and leads to a file, which opening by name would overwrite from its beginning.
  static bool WritesStandardFile(const std::string& target);

  // Waits for a reader up to the deadline. Throws Error.
  PipeOutput(const std::string& target, IoDeadline& deadline);
  PipeOutput(const PipeOutput&) = delete;
  PipeOutput& operator=(const PipeOutput&) = delete;

  AVIOContext* io() const { return io_.get(); }

 private:
  static int WriteCallback(void* output, std::uint8_t* bytes, int size);
  int Write(const std::uint8_t* bytes, int size);

  IoDeadline& deadline_;
  os::ByteSink sink_;
  CallbackIo io_;
};

}  // namespace host::ffmpeg
