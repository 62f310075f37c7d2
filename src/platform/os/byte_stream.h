// Pipes and devices, read and written byte by byte, whose other end may stay silent or stop
// reading.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace os {

// A read never waits longer than its limit, even while there is no writer yet, where a plain read
// would block indefinitely. One thread at a time.
class ByteStream {
 public:
  enum class Result {
    kData,
    kSilence,  // nothing came in time
    kEnd,      // the writer has gone
    kFailed,
  };

  ByteStream() = default;
  ~ByteStream();
  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;

  // Whether the native path is to be read in this way: a pipe, socket or character device.
  static bool IsStream(const std::string& path);

  // Does not wait for a writer. Returns one of the system's error numbers, 0 when it is open.
  std::uint32_t Open(const std::string& path);
  // At least one byte with kData.
  Result Read(std::span<std::uint8_t> buffer, std::chrono::milliseconds wait, std::size_t* count);

 private:
  int descriptor_ = -1;
};

// A write never waits longer than its limit, where a plain write would block until somebody reads.
// A closed reader is a result, not a signal to the process. One thread at a time.
class ByteSink {
 public:
  enum class Result {
    kWritten,
    kFull,  // nothing could be written in time
    kGone,  // the reader has gone
    kFailed,
  };

  ByteSink() = default;
  ~ByteSink();
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;

  // Does not wait for a reader: a pipe without one gives kErrorNotReady. Otherwise one of the
  // system's error numbers, 0 when it is open.
  std::uint32_t Open(const std::string& path);
  // At least one byte with kWritten.
  Result Write(std::span<const std::uint8_t> bytes, std::chrono::milliseconds wait,
               std::size_t* count);

 private:
  int descriptor_ = -1;
};

}  // namespace os
