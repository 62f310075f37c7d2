// SharedReceivers: one connection for all readers of a transport stream.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/source/program_filter.h"
#include "host/channel/source/source_address.h"
#include "host/config/wall.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/mutex.h"

namespace host {

// Receives and parses a transport stream once for any number of readers. Each reader gets the
// packets of its program, or everything, in a bounded queue of its own. A reader that is too slow
// loses the oldest part of its queue up to a point at which a decoder may begin again. Push sources
// (datagrams, SRT) are received without a pause; all others wait for the slowest reader, but not
// for one that has read nothing for kMaxPause.
//
// The connection is opened for the first reader, by a thread of its own, and closed when the last
// reader leaves, when the connection fails, or when nothing has arrived for longer than any reader
// waits; all readers fail with it then. A reader waits in Read only; the last one to leave waits
// until the connection is closed, so that its port can be opened again.
//
// The thread may be stuck where it cannot be cancelled, as in the resolution of a name. It touches
// only what it shares with its readers, and ends as soon as the call returns.
class SharedReceiver : public std::enable_shared_from_this<SharedReceiver> {
 public:
  using Bytes = std::span<const std::uint8_t>;

  // The access of one reader. May be destroyed on any thread after the last call.
  class Subscription {
   public:
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // Waits for the connection. 0, or an AVERROR code: AVERROR_EXIT after the deadline.
    int WaitUntilOpen(ffmpeg::IoDeadline& deadline);
    // The next piece: its number of bytes, 0 when none arrived for a moment, or an AVERROR code.
    int Read(std::span<std::uint8_t> buffer);
    // Why there is no more data of the program, for a slate; none while there may be.
    std::optional<std::string> missingProgram() const;
    // Of the wanted program; 0 when none is wanted, or until it is found.
    int programNumber() const;
    // RTP packets arrive, but none with a transport stream.
    bool carriesOther() const;
    // RTP packets that never arrived, since the connection was opened.
    std::uint64_t packetsLost() const { return receiver_->packetsLost_; }
    // How often its queue was full.
    std::uint64_t overflows() const;

   private:
    friend class SharedReceiver;
    struct Piece {
      std::vector<std::uint8_t> bytes;
      bool isRandomAccess = false;  // a decoder may begin in it
    };

    Subscription(std::shared_ptr<SharedReceiver> receiver, const config::ProgramChoice& program);

    const std::shared_ptr<SharedReceiver> receiver_;
    // The following are guarded by the receiver's lock.
    os::ConditionVariable came_;
    std::optional<ProgramFilter> filter_;  // none: everything
    Piece next_;                           // being filled
    std::deque<Piece> queue_;
    std::size_t taken_ = 0;   // bytes of the first piece that were read
    std::size_t queued_ = 0;  // bytes
    std::uint64_t overflows_ = 0;
    std::chrono::steady_clock::time_point readAt_ = std::chrono::steady_clock::now();
  };

  explicit SharedReceiver(ReceiverAddress address, std::chrono::milliseconds silenceLimit)
      : address_(std::move(address)), silenceLimit_(silenceLimit) {}

 private:
  friend class SharedReceivers;
  enum class Phase { kOpening, kOpen, kEnded };

  static constexpr std::size_t kMaxQueued = std::size_t{8} << 20;  // bytes
  static constexpr std::chrono::milliseconds kMaxPause{1000};

  // None once the last reader has left, or the connection has ended.
  std::unique_ptr<Subscription> Subscribe(const config::ProgramChoice& program);
  void Leave(Subscription& reader);
  // False at the deadline.
  bool WaitUntilEnded(ffmpeg::IoDeadline& deadline);
  void Run();
  int Receive();
  void End(int failure);
  void WaitForReaders();
  void Distribute(Bytes bytes);
  static void Push(Subscription& reader);

  const ReceiverAddress address_;
  const std::chrono::milliseconds silenceLimit_;
  ffmpeg::IoDeadline deadline_;

  os::Mutex lock_;
  os::ConditionVariable changed_;  // the phase has changed
  os::ConditionVariable read_;     // a reader has read or left
  Phase phase_ GUARDED_BY(lock_) = Phase::kOpening;
  int failure_ GUARDED_BY(lock_) = 0;  // AVERROR code that it ended with
  bool carriesOther_ GUARDED_BY(lock_) = false;
  bool isLeft_ GUARDED_BY(lock_) = false;  // the last reader has left
  std::vector<Subscription*> readers_ GUARDED_BY(lock_);

  std::atomic<std::uint64_t> packetsLost_{0};

  // Used by the thread only.
  TransportPackets packets_;
  ProgramTables tables_;
};

// The connections of one wall. Any thread; readers may outlive it.
class SharedReceivers {
 public:
  // silenceLimit: a connection without data for this long is closed. Waits while the same one is
  // being closed; null at the deadline. Throws std::system_error when no thread can be started.
  std::unique_ptr<SharedReceiver::Subscription> Subscribe(const ReceiverAddress& address,
                                                          std::chrono::milliseconds silenceLimit,
                                                          const config::ProgramChoice& program,
                                                          ffmpeg::IoDeadline& deadline);

 private:
  os::Mutex lock_;
  std::map<ReceiverAddress, std::weak_ptr<SharedReceiver>> receivers_ GUARDED_BY(lock_);
};

}  // namespace host
