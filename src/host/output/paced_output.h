// PacedOutput: sends a transport stream in datagrams, evenly.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/output/transport_pacer.h"
#include "platform/os/thread.h"

namespace host {

// Takes what a muxer writes through io() into a bounded buffer; a thread of its own sends it when
// it is due (see TransportPacer). A datagram that cannot be sent fails the next write. Owned by a
// muxer and called on its thread; outlives the format context that writes through io().
class PacedOutput {
 public:
  // connection: of datagrams. Whatever waits here ends when the deadline is cancelled.
  PacedOutput(ffmpeg::Connection connection, ffmpeg::IoDeadline& deadline);
  // What was not sent is lost.
  ~PacedOutput();
  PacedOutput(const PacedOutput&) = delete;
  PacedOutput& operator=(const PacedOutput&) = delete;

  AVIOContext* io() const { return io_.get(); }
  // A datagram has left. Any thread.
  bool hasSent() const { return hasSent_; }
  // Waits until everything has left. Zero, or a negative error of FFmpeg.
  int Drain();

 private:
  static int OnWrite(void* output, std::uint8_t* bytes, int size);
  int Write(const std::uint8_t* bytes, int size);
  void Run();

  const ffmpeg::Connection connection_;  // the thread's once it runs
  ffmpeg::IoDeadline& deadline_;
  const std::size_t packetsInOne_;  // of a datagram
  ffmpeg::CallbackIo io_;
  std::vector<std::uint8_t> partial_;  // of a packet; the muxer's thread
  std::atomic<bool> hasSent_{false};
  std::mutex lock_;
  std::condition_variable changed_;
  TransportPacer pacer_;    // guarded by lock_
  bool isSending_ = false;  // guarded by lock_
  int error_ = 0;           // guarded by lock_
  bool ends_ = false;       // guarded by lock_
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
