// TappedInput: a connection whose bytes somebody else may look at as they come.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"

namespace host::ffmpeg {

// A demuxer tells less of its source than the source says. The tap sees every byte before the
// demuxer does.
//
// Owned by its reader, and must outlive the format context that reads through io(). One thread.
class TappedInput {
 public:
  // False: that was enough, reading ends here with AVERROR_EXIT.
  using Tap = std::function<bool(std::span<const std::uint8_t> bytes)>;

  // Connects. Takes out of the options what the protocol used. Throws Error when there is no
  // connection, after the deadline at the latest.
  TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap);
  TappedInput(const TappedInput&) = delete;
  TappedInput& operator=(const TappedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // Goes on after a call that the deadline has ended: of datagrams nothing is broken.
  void Resume();

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);

  const Tap tap_;
  bool enough_ = false;
  Connection connection_;
  CallbackIo io_;
};

}  // namespace host::ffmpeg
