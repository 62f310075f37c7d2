#include "host/ffmpeg/tapped_input.h"

#include <cstddef>
#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {

TappedInput::TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap)
    : tap_(std::move(tap)) {
  const AVIOInterruptCB interrupt{&IoDeadline::Callback, &deadline};
  AVIOContext* connection = nullptr;
  Check(avio_open2(&connection, url.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()),
        "cannot open");
  connection_.reset(connection);
  io_ = MakeReadingIo(this, &ReadCallback);
}

void TappedInput::Resume() {
  for (AVIOContext* const io : {connection_.get(), io_.get()}) {
    io->eof_reached = 0;  // where the call that was ended has left it
    io->error = 0;
  }
}

int TappedInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<TappedInput*>(input)->Read(buffer, size);
}

int TappedInput::Read(std::uint8_t* buffer, int size) {
  if (enough_) {
    return AVERROR_EXIT;
  }
  const int count = avio_read_partial(connection_.get(), buffer, size);
  if (count > 0) {
    enough_ = !tap_({buffer, static_cast<std::size_t>(count)});
  }
  return count;
}

}  // namespace host::ffmpeg
