// PipeOutput: writes a pipe or a device without ever being stuck in it.
#pragma once

#include <cstdint>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/byte_stream.h"

namespace host::ffmpeg {

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
