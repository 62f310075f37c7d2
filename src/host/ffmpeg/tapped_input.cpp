#include "host/ffmpeg/tapped_input.h"

#include <algorithm>
#include <cstddef>
#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {
namespace {

constexpr std::size_t kMaxPiece = 65'536;  // no datagram is longer

}  // namespace

TappedInput::TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap)
    : tap_(std::move(tap)), deadline_(deadline), piece_(kMaxPiece) {
  const AVIOInterruptCB interrupt{&IoDeadline::Callback, &deadline};
  AVIOContext* connection = nullptr;
  Check(avio_open2(&connection, url.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()),
        "cannot open");
  connection_.reset(connection);
  io_ = MakeReadingIo(this, &ReadCallback);
}

void TappedInput::Resume() {
  enough_ = false;
  for (AVIOContext* const io : {connection_.get(), io_.get()}) {
    io->eof_reached = 0;  // where the call that was ended has left it
    io->error = 0;
  }
}

int TappedInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<TappedInput*>(input)->Read(buffer, size);
}

int TappedInput::Read(std::uint8_t* buffer, int size) {
  while (rest_.empty()) {
    if (enough_) {
      return AVERROR_EXIT;
    }
    const int count =
        avio_read_partial(connection_.get(), piece_.data(), static_cast<int>(piece_.size()));
    if (count < 0) {
      return count;
    }
    // An empty datagram is no end, as it would be to FFmpeg.
    if (count == 0) {
      if (deadline_.ShouldStop()) {
        return AVERROR_EXIT;
      }
      continue;
    }
    const std::optional<Bytes> given = tap_(Bytes(piece_).first(static_cast<std::size_t>(count)));
    enough_ = !given.has_value();
    rest_ = given.value_or(Bytes());
  }
  const Bytes read = rest_.first(std::min(rest_.size(), static_cast<std::size_t>(size)));
  std::copy(read.begin(), read.end(), buffer);
  rest_ = rest_.subspan(read.size());
  return static_cast<int>(read.size());
}

}  // namespace host::ffmpeg
