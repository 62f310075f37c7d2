#include "host/ffmpeg/inputs.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <new>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include "host/ffmpeg/error.h"
#include "platform/os/error_numbers.h"

namespace host::ffmpeg {
namespace {

// In one piece, of all of FFmpeg: a length field of a stranger may ask for gigabytes. A frame of
// the greatest size that is decoded takes half of it.
constexpr std::size_t kMaxAllocation = std::size_t{512} << 20;

void LimitAllocations() {
  static const bool isLimited = [] {
    av_max_alloc(kMaxAllocation);
    return true;
  }();
  static_cast<void>(isLimited);
}

// How long a cancelled read may take to notice.
constexpr std::chrono::milliseconds kTimeout(20);

bool IsStandardInput(const std::string& source) {
  return source == "-" || source == "pipe:" || source == "pipe:0";
}

int ToAvError(std::uint32_t systemError) {
  switch (systemError) {
    case os::kErrorFileNotFound:
    case os::kErrorPathNotFound:
      return AVERROR(ENOENT);
    case os::kErrorAccessDenied:
      return AVERROR(EACCES);
    default:
      return AVERROR(EIO);
  }
}

}  // namespace

InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline) {
  LimitAllocations();
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  context->interrupt_callback = {&IoDeadline::Callback, &deadline};
  context->pb = io;
  // On failure this frees the context itself.
  Check(avformat_open_input(&context, name.c_str(), nullptr, options.Exchange()), "cannot open");
  return InputFormat(context);
}

bool PipeInput::Serves(const std::string& source) {
  return IsStandardInput(source) || os::ByteStream::IsStream(source);
}

PipeInput::PipeInput(const std::string& source, IoDeadline& deadline) : deadline_(deadline) {
  if (const std::uint32_t error = stream_.Open(IsStandardInput(source) ? "/dev/stdin" : source);
      error != 0) {
    throw Error(ToAvError(error), "cannot open", source);
  }
  io_ = MakeReadingIo(this, &ReadCallback);
}

int PipeInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<PipeInput*>(input)->Read(buffer, size);
}

int PipeInput::Read(std::uint8_t* buffer, int size) {
  while (!deadline_.ShouldStop()) {
    std::size_t count = 0;
    switch (stream_.Read({buffer, static_cast<std::size_t>(size)}, kTimeout, &count)) {
      case os::ByteStream::Result::kData:
        return static_cast<int>(count);
      case os::ByteStream::Result::kSilence:
        break;
      case os::ByteStream::Result::kEnd:
        return AVERROR_EOF;
      case os::ByteStream::Result::kFailed:
        return AVERROR(EIO);
    }
  }
  return AVERROR_EXIT;
}

Connection OpenConnection(const std::string& url, IoDeadline& deadline, Options& options) {
  LimitAllocations();
  const AVIOInterruptCB interrupt{&IoDeadline::Callback, &deadline};
  AVIOContext* connection = nullptr;
  Check(avio_open2(&connection, url.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()),
        "cannot open");
  return Connection(connection);
}

TappedInput::TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap)
    : tap_(std::move(tap)),
      deadline_(deadline),
      piece_(kMaxPiece),
      connection_(OpenConnection(url, deadline, options)),
      source_([this](std::span<std::uint8_t> buffer) {
        return avio_read_partial(connection_.get(), buffer.data(), static_cast<int>(buffer.size()));
      }),
      io_(MakeReadingIo(this, &ReadCallback)) {}

TappedInput::TappedInput(Source source, IoDeadline& deadline, Tap tap)
    : tap_(std::move(tap)),
      deadline_(deadline),
      piece_(kMaxPiece),
      source_(std::move(source)),
      io_(MakeReadingIo(this, &ReadCallback)) {}

void TappedInput::Resume() {
  enough_ = false;
  for (AVIOContext* const io : {connection_.get(), io_.get()}) {
    if (io != nullptr) {
      io->eof_reached = 0;  // where the call that was ended has left it
      io->error = 0;
    }
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
    const int count = source_(piece_);
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
