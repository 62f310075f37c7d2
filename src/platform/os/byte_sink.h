// Pipes and devices that are written byte by byte and whose readers may stop reading.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace os {

// Writes without ever waiting longer than it is told to, where a plain write would hang until
// somebody reads. A reader that has gone is an answer, not a signal to the process. One thread at a
// time.
class ByteSink {
 public:
  enum class Result {
    kWritten,
    kFull,  // nothing could be written in time
    kGone,  // nobody reads any more
    kFailed,
  };

  ByteSink() = default;
  ~ByteSink();
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;

  // Does not wait for a reader: a pipe without one answers kErrorNotReady. Otherwise one of the
  // system's error numbers, 0 when it is open.
  std::uint32_t Open(const std::string& path);
  // At least one byte with kWritten.
  Result Write(std::span<const std::uint8_t> bytes, std::chrono::milliseconds wait,
               std::size_t* count);

 private:
  int descriptor_ = -1;
};

}  // namespace os
