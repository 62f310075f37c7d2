// PipeInput: reads a pipe or a device without ever being stuck in it.
#pragma once

#include <cstdint>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/byte_stream.h"

namespace host::ffmpeg {

// FFmpeg reads files with calls that block, which is fine for a disk; a pipe that stays open and
// silent would hold its reader indefinitely. This input waits for data and asks its deadline
// meanwhile.
//
// Owned by its reader, and must outlive the format context that reads through io().
class PipeInput {
 public:
  // Whether a source is a pipe, a device or the standard input ("-" or "pipe:").
  static bool Serves(const std::string& source);

  // Throws Error when the pipe cannot be opened.
  PipeInput(const std::string& source, IoDeadline& deadline);
  PipeInput(const PipeInput&) = delete;
  PipeInput& operator=(const PipeInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);

  IoDeadline& deadline_;
  os::ByteStream stream_;
  CallbackIo io_;
};

}  // namespace host::ffmpeg
