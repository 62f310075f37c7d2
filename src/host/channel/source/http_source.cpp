#include "host/channel/source/http_source.h"

#include <array>
#include <string_view>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

namespace host {
namespace {

constexpr std::size_t kBeginning = 4096;  // bytes
constexpr std::size_t kMaxBoxHeader = 16;

std::uint64_t BigEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes) {
    number = number << 8 | byte;
  }
  return number;
}

}  // namespace

bool MayKnowNoRanges(int code) {
  return code == AVERROR_HTTP_BAD_REQUEST || code == AVERROR_HTTP_OTHER_4XX ||
         code == AVERROR_HTTP_SERVER_ERROR || code == AVERROR_INVALIDDATA;
}

// Boxes: four bytes of size, four of type, and eight more of size where the first says 1.
bool DataComesFirst(std::span<const std::uint8_t> beginning) {
  while (beginning.size() >= kMaxBoxHeader) {
    std::uint64_t size = BigEndian(beginning.first(4));
    const std::string_view type(reinterpret_cast<const char*>(beginning.data()) + 4, 4);
    if (type == "mdat" || type == "moov") {
      return type == "mdat";
    }
    if (size == 1) {
      size = BigEndian(beginning.subspan(8, 8));
    }
    if (size < 8 || size > beginning.size()) {
      return false;
    }
    beginning = beginning.subspan(static_cast<std::size_t>(size));
  }
  return false;
}

bool ServesDataFirst(const std::string& url, ffmpeg::Options& options,
                     ffmpeg::IoDeadline& deadline) {
  const AVIOInterruptCB interrupt{&ffmpeg::IoDeadline::Callback, &deadline};
  AVIOContext* opened = nullptr;
  if (avio_open2(&opened, url.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()) < 0) {
    return false;
  }
  const ffmpeg::Connection connection(opened);
  std::array<std::uint8_t, kBeginning> bytes{};
  const int count = avio_read(connection.get(), bytes.data(), static_cast<int>(bytes.size()));
  return count > 0 && (connection->seekable & AVIO_SEEKABLE_NORMAL) == 0 &&
         DataComesFirst(std::span(bytes).first(static_cast<std::size_t>(count)));
}

}  // namespace host
