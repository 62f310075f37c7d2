// CompanionProcess: a second process of this program, for code that may crash or never return.
// MessageSocket: the connection between the two.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace os {

// One end of a connection of messages, which arrive whole and in order. Send and Wake may be called
// by any thread, Receive by one.
class MessageSocket {
 public:
  enum class Received {
    kMessage,
    kNothing,  // within the time, or Wake was called
    kClosed,   // the other end is gone, and everything it has sent was received
  };
  static constexpr std::size_t kMaxMessage = 32'768;  // bytes

  // Takes ownership of the descriptor. Throws std::system_error.
  explicit MessageSocket(int descriptor);
  ~MessageSocket();
  MessageSocket(const MessageSocket&) = delete;
  MessageSocket& operator=(const MessageSocket&) = delete;

  // Returns at once; false when the other end takes no more now, or is gone. The message has 1 to
  // kMaxMessage bytes.
  bool Send(std::span<const std::uint8_t> message) const;
  // Waits for a message no longer than the limit.
  Received Receive(std::vector<std::uint8_t>& message, std::chrono::milliseconds limit) const;
  // Ends the Receive that waits, or the next one.
  void Wake() const;

 private:
  const int descriptor_;
  const int wake_;
};

// Memory that both processes share, zero at first. May be empty.
class SharedMemory {
 public:
  // Throws std::system_error.
  static SharedMemory Create(std::size_t size);
  // Takes ownership of the descriptor.
  static SharedMemory Of(int descriptor);
  ~SharedMemory();
  SharedMemory(SharedMemory&& other) noexcept;
  SharedMemory& operator=(SharedMemory&&) = delete;

  std::span<std::uint8_t> bytes() const { return {start_, size_}; }
  int descriptor() const { return descriptor_; }

 private:
  explicit SharedMemory(int descriptor);

  int descriptor_;
  std::uint8_t* start_ = nullptr;
  std::size_t size_ = 0;
};

// The process that was started, and what it shares with this one. Its standard streams are
// /dev/null, and it has a process group of its own; it ends when its parent does. One thread.
class CompanionProcess {
 public:
  // program: its path. memory: bytes. Throws std::system_error.
  CompanionProcess(const std::string& program, const std::vector<std::string>& arguments,
                   std::size_t memory);
  // Kills it when it still runs.
  ~CompanionProcess();
  CompanionProcess(const CompanionProcess&) = delete;
  CompanionProcess& operator=(const CompanionProcess&) = delete;

  const MessageSocket& socket() const { return socket_; }
  std::span<std::uint8_t> memory() const { return memory_.bytes(); }
  // Its exit code, or minus the signal that ended it; none when it runs for longer than the limit.
  std::optional<int> WaitForEnd(std::chrono::milliseconds limit);

 private:
  struct Ends;
  CompanionProcess(const std::string& program, const std::vector<std::string>& arguments,
                   std::size_t memory, Ends ends);

  SharedMemory memory_;
  MessageSocket socket_;
  int id_ = -1;
  std::optional<int> status_;
};

// The companion's side of what is shared. Created once, when the process starts. Throws
// std::system_error when it was not started by a CompanionProcess.
struct CompanionSide {
  CompanionSide();

  SharedMemory memory;
  MessageSocket socket;
};

}  // namespace os
