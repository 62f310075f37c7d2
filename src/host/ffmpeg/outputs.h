// The files and pipes into which is written in place of FFmpeg's own protocols.
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

// What FFmpeg's own file protocol does, and two things that it does not. A new file is created and
// opened in one step, so that no file that exists is truncated, not even one made in between.
// And what the muxer flushes at once (a cluster, a fragment, a frame in transport packets) reaches
// the file in one write, so that a program that is killed leaves no half of it.
//
// Owned by its writer, on one thread, and must outlive the format context that writes through io().
class FileOutput {
 public:
  enum class Existing {
    kKept,      // a file of that name is an error: AVERROR(EEXIST)
    kReplaced,  // ... is emptied
  };

  // Throws Error.
  FileOutput(const std::string& path, Existing existing);
  // The standard output of the process, which is a file. Written from where it stands, no seeking.
  static std::unique_ptr<FileOutput> OfStandardOutput();
  // Closes the file; one that was new is removed when nothing was written into it, or when it is to
  // be discarded.
  ~FileOutput();
  FileOutput(const FileOutput&) = delete;
  FileOutput& operator=(const FileOutput&) = delete;

  AVIOContext* io() const { return io_.get(); }
  const std::string& path() const { return path_; }
  // Bytes that have reached the file, those of parts that were written twice included. Any
  // thread.
  std::int64_t written() const { return written_; }
  // Nothing of use will be in the file.
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

// FFmpeg writes files with calls that block; a pipe that nobody reads would hold its writer for
// ever, from its opening on. This output waits for its reader and asks its deadline meanwhile.
//
// Owned by its writer, and must outlive the format context that writes through io().
class PipeOutput {
 public:
  // Whether a target is a pipe, a device or the standard output ("-" or "pipe:").
  static bool Serves(const std::string& target);
  // Whether it is the standard output, under whatever name.
  static bool IsStandardOutput(const std::string& target);
  // ... which leads into a file. Opening that again would write over what is before its end.
  static bool WritesStandardFile(const std::string& target);

  // Waits for a reader as long as the deadline lets it. Throws Error.
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
