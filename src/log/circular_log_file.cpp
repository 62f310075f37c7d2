#include "log/circular_log_file.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

#include "util/text_codecs.h"

namespace qorp::log {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kMaxLine = 1 << 20;
constexpr std::size_t kReadSize = 1 << 16;

std::string FormatHeader(std::uint64_t head) {
  return StringFormat("0x%.8X\r\n", static_cast<unsigned>(head));
}

}  // namespace

std::uint32_t CircularLogFile::Open(const std::string& path, os::File::Access access) {
  Close();
  std::uint32_t error = 0;
  if (access == os::File::Access::kReadWrite) {
    // Without effect, and not an error, when the file is there.
    if (file_.Create(path) == 0) {
      file_.WriteAt(0, FormatHeader(0));
    }
    error = file_.Open(path, access);
    good_ = error == 0;
  }
  if (!file_.IsOpen()) {
    const std::uint32_t readError = file_.Open(path, os::File::Access::kRead);
    error = error != 0 ? error : readError;
  }
  ReadHeader();
  return error;
}

void CircularLogFile::Close() {
  file_.Close();
  good_ = false;
}

void CircularLogFile::ReadHeader() {
  header_ = Header::kMissing;
  head_ = kHeaderSize;
  size_ = 0;
  std::array<char, kHeaderSize + 1> header{};
  std::size_t count = 0;
  // The size comes second: a writer beside us makes the file longer before its header says so.
  if (!file_.IsOpen() || file_.ReadAt(0, std::span(header).first(kHeaderSize), &count) != 0 ||
      file_.GetSize(&size_) != 0 || count == 0) {
    return;
  }
  char* end = nullptr;
  const std::uint64_t head = std::strtoull(header.data(), &end, 16);
  if (end == header.data()) {
    header_ = Header::kNoNumber;
  } else if (head == 0) {
    header_ = Header::kWhole;
  } else if (head < kHeaderSize || head > size_) {
    header_ = Header::kElsewhere;
  } else {
    header_ = Header::kWhole;
    head_ = head;
  }
}

void CircularLogFile::ReadOldest(const TakeLine& take) const {
  ReadLines(head_, size_, take);
}

void CircularLogFile::ReadNewest(const TakeLine& take) const {
  bool isHeader = true;
  ReadLines(0, head_, [&](std::string_view line, std::uint64_t begin) {
    return std::exchange(isHeader, false) || take(line, begin);
  });
}

void CircularLogFile::ReadLines(std::uint64_t begin, std::uint64_t end,
                                const TakeLine& take) const {
  if (!file_.IsOpen()) {
    return;
  }
  std::uint64_t offset = begin;
  std::vector<char> buffer(kReadSize);
  std::string line;
  std::uint64_t lineBegin = begin;
  const auto takeLine = [&] {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
    const bool proceeds = lineBegin < end && take(line, lineBegin);
    line.clear();
    return proceeds;
  };
  while (lineBegin < end && offset < size_) {
    const std::size_t wanted = std::min<std::uint64_t>(kReadSize, size_ - offset);
    std::size_t count = 0;
    // What cannot be read ends the file.
    if (file_.ReadAt(offset, std::span(buffer).first(wanted), &count) != 0 || count == 0) {
      break;
    }
    std::string_view rest(buffer.data(), count);
    while (!rest.empty()) {
      const std::size_t length = std::min(rest.find('\n'), rest.size());
      line.append(rest.substr(0, std::min(length, kMaxLine - line.size())));
      const bool ended = length < rest.size();
      rest.remove_prefix(length + (ended ? 1 : 0));
      if (ended) {
        if (!takeLine()) {
          return;
        }
        lineBegin = offset + count - rest.size();
      }
    }
    offset += count;
  }
  // The end of the file ends the last line, too.
  if (!line.empty()) {
    takeLine();
  }
}

std::string CircularLogFile::ReadBytes() const {
  std::string bytes(file_.IsOpen() ? size_ : 0, '\0');
  std::size_t filled = 0;
  std::size_t count = 0;
  while (filled < bytes.size() &&
         file_.ReadAt(filled, std::span(bytes).subspan(filled), &count) == 0 && count != 0) {
    filled += count;
  }
  bytes.resize(filled);
  return bytes;
}

void CircularLogFile::Append(std::string_view line, std::uint32_t maxSize) {
  std::string bytes(line);
  bytes += kLineEnd;
  if (file_.WriteAt(head_, bytes) != 0) {
    good_ = false;
    return;
  }
  head_ += bytes.size();
  if ((maxSize != 0 && head_ > maxSize) || head_ > std::numeric_limits<std::uint32_t>::max()) {
    head_ = kHeaderSize;
  }
  good_ = file_.WriteAt(0, FormatHeader(head_)) == 0;
}

}  // namespace qorp::log
