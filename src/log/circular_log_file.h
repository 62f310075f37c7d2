// CircularLogFile: the file behind a log file sink.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/os/files.h"

namespace qorp::log {

// A file of bounded size whose newest lines overwrite the oldest:
//
//   offset 0    "0x0000BEEF" CR LF    the header: the head, where the next line will be written
//   offset 12   line CR LF ...        the newest lines, up to the head
//   head        line CR LF ...        the oldest lines, the first of them partly overwritten
//
// A line is written before the header that counts it. Whoever dies in between, or in the middle of
// the line, leaves a header that names the end of the line before: nothing that a header counted is
// lost, and writing goes on there. The header is 12 bytes in one piece and is never half written.
//
// Used by one thread. Failures of the system are told by IsOpen and IsGood; nothing throws but
// std::bad_alloc.
class CircularLogFile {
 public:
  static constexpr std::uint64_t kHeaderSize = 12;

  // False ends the reading.
  using TakeLine = std::function<bool(std::string_view line)>;

  // kReadWrite makes the file when there is none, and falls back to reading alone. A header that is
  // no hexadecimal number, or names a place that is not in the file, stands for an empty one:
  // writing begins at 12.
  void Open(const std::string& path, os::File::Access access);
  void Close();
  bool IsOpen() const { return file_.IsOpen(); }
  // Open for writing, and no write has failed since.
  bool IsGood() const { return file_.IsOpen() && good_; }

  // The lines from the head to the end of the file, and those from the header to the head. Lines
  // come without their ends, and cut when longer than 1 MiB.
  void ReadOldest(const TakeLine& take) const;
  void ReadNewest(const TakeLine& take) const;

  // Writes a line, and the header that counts it. maxSize in bytes: when a line ends beyond it, the
  // next one is written at 12 again; 0 for no limit but that of the header, 4 GiB.
  void Append(std::string_view line, std::uint32_t maxSize);

 private:
  void ReadHeader();
  void ReadLines(std::uint64_t offset, std::uint64_t end, const TakeLine& take) const;

  os::File file_;
  bool good_ = false;
  std::uint64_t head_ = kHeaderSize;
  std::uint64_t size_ = 0;  // when it was opened
};

}  // namespace qorp::log
