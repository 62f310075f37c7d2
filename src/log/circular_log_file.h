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
// A line is written before the header that counts it. A writer that dies in between, or in the
// middle of the line, leaves a header that names the end of the line before: nothing that a header
// counted is lost, and writing continues there. The header is 12 bytes in one piece and is never
// half written.
//
// Used by one thread. Failures of the system show in IsOpen and IsGood; nothing throws but
// std::bad_alloc.
class CircularLogFile {
 public:
  static constexpr std::uint64_t kHeaderSize = 12;

  // A line and the offset at which it begins; false ends the reading.
  using TakeLine = std::function<bool(std::string_view line, std::uint64_t begin)>;

  // What the header says. All but a whole one stand for that of a new file: writing begins at 12.
  enum class Header {
    kMissing,    // the file is empty, or not open
    kWhole,      // names a place in the file, or 0
    kNoNumber,   // begins with no hexadecimal number
    kElsewhere,  // names a place that is not in the file
  };

  // kReadWrite makes the file when there is none, and falls back to reading alone. Answers one of
  // the system's error numbers, 0 when it is open as it was to be.
  std::uint32_t Open(const std::string& path, os::File::Access access);
  void Close();
  bool IsOpen() const { return file_.IsOpen(); }
  // Open for writing, and no write has failed since.
  bool IsGood() const { return file_.IsOpen() && good_; }

  Header header() const { return header_; }
  // Where the next line will be written, and the size of the file, both as they were when the
  // header was read.
  std::uint64_t head() const { return head_; }
  std::uint64_t size() const { return size_; }
  // For a reader beside the writer: reads the header again.
  void ReadHeader();
  // True while the path still leads to the file that is open.
  bool IsAt(const std::string& path) const { return file_.IsAt(path); }

  // The lines from the head to the end of the file, and those from the header to the head. Lines
  // come without their ends, and cut when longer than 1 MiB.
  void ReadOldest(const TakeLine& take) const;
  void ReadNewest(const TakeLine& take) const;
  // The lines that begin at begin or later, and before end.
  void ReadLines(std::uint64_t begin, std::uint64_t end, const TakeLine& take) const;
  // All bytes as they are, in one go: beside a writer that leaves it the least time to change them.
  // What cannot be read is missing at the end.
  std::string ReadBytes() const;

  // Writes a line, and the header that counts it. maxSize in bytes: when a line ends beyond it, the
  // next one is written at 12 again; 0 for no limit but that of the header, 4 GiB.
  void Append(std::string_view line, std::uint32_t maxSize);

 private:
  os::File file_;
  bool good_ = false;
  Header header_ = Header::kMissing;
  std::uint64_t head_ = kHeaderSize;
  std::uint64_t size_ = 0;
};

}  // namespace qorp::log
