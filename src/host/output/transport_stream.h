// A transport stream behind the muxer: additional PCRs and, for live UDP, pacing and sending.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/units.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// An encoder gives a whole frame at once. Sent like that, a keyframe is a burst of a thousand
// packets at line rate, more than switches and receivers have room for. So what waits leaves evenly
// within a share of the time from one PCR to the next, and what has piled up four times as fast.
// One thread at a time; it reads no clock.
class TransportPacer {
 public:
  static constexpr std::size_t kPacketSize = 188;  // bytes
  // Of the time from one PCR to the next, in percent: the whole of it would leave no room for the
  // jitter of the encoder and would add to the delay.
  static constexpr int kShare = 60;
  static constexpr int kLowDelayShare = 25;

  explicit TransportPacer(int share = kShare) : share_(share) {}

  void Push(std::span<const std::uint8_t, kPacketSize> packet);
  bool empty() const { return packets_.empty(); }
  std::size_t bytes() const { return packets_.size() * kPacketSize; }
  // When the next packets leave, unless there are none.
  Time due() const { return due_; }
  // Takes the next packets, at most so many. now: when they leave.
  std::vector<std::uint8_t> Take(std::size_t most, Time now);

 private:
  struct Packet {
    std::array<std::uint8_t, kPacketSize> bytes;
    bool hasPcr = false;
  };

  const int share_;
  std::deque<Packet> packets_;
  std::optional<std::int64_t> pcr_;    // the latest, 90 kHz
  Time interval_ = 40 * kMillisecond;  // between the latest two
  std::size_t clocks_ = 0;             // packets with a PCR that wait
  Time end_ = 0;                       // when all that waited is to have left
  Time due_ = 0;
};

// Takes what a muxer writes through io() into a bounded buffer; a thread of its own sends it when
// it is due (see TransportPacer). A datagram that cannot be sent fails the next write. Owned by a
// muxer and called on its thread; outlives the format context that writes through io().
class PacedOutput {
 public:
  // connection: of datagrams. share: of TransportPacer. Whatever waits here ends when the deadline
  // is cancelled.
  PacedOutput(ffmpeg::Connection connection, ffmpeg::IoDeadline& deadline, int share);
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
  // Waits until the next packets are due; empty when the output ends.
  std::vector<std::uint8_t> NextDatagram();
  void Run();

  const ffmpeg::Connection connection_;  // the thread's once it runs
  ffmpeg::IoDeadline& deadline_;
  const std::size_t packetsInOne_;  // packets of one datagram
  ffmpeg::CallbackIo io_;
  std::vector<std::uint8_t> partial_;  // of a packet; the muxer's thread
  std::atomic<bool> hasSent_{false};
  os::Mutex lock_;
  os::ConditionVariable changed_;
  TransportPacer pacer_ GUARDED_BY(lock_);
  bool isSending_ GUARDED_BY(lock_) = false;
  int error_ GUARDED_BY(lock_) = 0;
  bool ends_ GUARDED_BY(lock_) = false;
  std::unique_ptr<os::Thread> thread_;
};

// Passes a transport stream through to the I/O context below it, and inserts packets with nothing
// but a PCR where the next PCR would be more than 80 ms after the latest one. They have the PID and
// the continuity counter of the packets that carry the PCR.
//
// Owned and called by a muxer that writes each packet at once, without a constant rate.
class PcrFiller {
 public:
  // below outlives it.
  explicit PcrFiller(AVIOContext* below);

  AVIOContext* io() const { return io_.get(); }
  AVIOContext* below() const { return below_; }
  // Before a packet is written. dts: in units of 1/90,000 s. carriesPcr: its PES packet has one.
  void Announce(std::int64_t dts, bool carriesPcr);
  // Writes what is buffered. Negative: FFmpeg's code of the failure.
  int Flush();

 private:
  static int OnWrite(void* filler, std::uint8_t* bytes, int size);
  int Write(const std::uint8_t* bytes, int size);
  void Note(const std::uint8_t* packet);
  void Insert(std::int64_t pcr);

  AVIOContext* const below_;
  std::optional<std::int64_t> latest_;     // PCR, in units of 1/90,000 s
  std::optional<std::int64_t> offset_;     // of the PCR from the DTS of its packet
  std::optional<std::int64_t> announced_;  // DTS of the packet that carries the next PCR
  int pid_ = 0;
  int counter_ = 0;
  ffmpeg::CallbackIo io_;
};

}  // namespace host
