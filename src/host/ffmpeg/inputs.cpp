#include "host/ffmpeg/inputs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

#include "host/ffmpeg/error.h"
#include "platform/os/error_numbers.h"

namespace host::ffmpeg {
namespace {

// Limit of each allocation of FFmpeg: a length field in untrusted data may ask for gigabytes. The
// largest frame that is decoded takes half of it.
constexpr std::size_t kMaxAllocation = std::size_t{512} << 20;

void LimitAllocations() {
  static const bool isLimited = [] {
    av_max_alloc(kMaxAllocation);
    return true;
  }();
  static_cast<void>(isLimited);
}

// How long a cancelled read may take to notice.
constexpr std::chrono::milliseconds kReadTimeout(20);

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

// The I/O contexts that a demuxer opens, and the bytes read from them. Owned by the input's context
// (its opaque pointer), see CloseInput.
class OpenedFiles {
 public:
  explicit OpenedFiles(AVFormatContext& context)
      : open_(context.io_open), close_(context.io_close2) {
    context.opaque = this;
    context.io_open = &Open;
    context.io_close2 = &Close;
  }
  static OpenedFiles& Of(const AVFormatContext& context) {
    return *static_cast<OpenedFiles*>(context.opaque);
  }

  std::uint64_t bytes() const {
    std::int64_t sum = closed_;
    for (const AVIOContext* const io : opened_) {
      sum += io->bytes_read;
    }
    return static_cast<std::uint64_t>(sum);
  }

 private:
  static int Open(AVFormatContext* context, AVIOContext** io, const char* url, int flags,
                  AVDictionary** options) {
    OpenedFiles& self = Of(*context);
    const int result = self.open_(context, io, url, flags, options);
    if (result >= 0) {
      self.opened_.push_back(*io);
    }
    return result;
  }
  static int Close(AVFormatContext* context, AVIOContext* io) {
    OpenedFiles& self = Of(*context);
    if (std::erase(self.opened_, io) > 0) {
      self.closed_ += io->bytes_read;
    }
    return self.close_(context, io);
  }

  const decltype(AVFormatContext::io_open) open_;
  const decltype(AVFormatContext::io_close2) close_;
  std::vector<const AVIOContext*> opened_;
  std::int64_t closed_ = 0;  // bytes of those that are closed
};

}  // namespace

void CloseInput::operator()(AVFormatContext* context) const noexcept {
  const std::unique_ptr<OpenedFiles> files(
      context != nullptr ? static_cast<OpenedFiles*>(context->opaque) : nullptr);
  avformat_close_input(&context);
}

std::uint64_t BytesRead(const AVFormatContext& input) {
  const bool isOurs = (input.flags & AVFMT_FLAG_CUSTOM_IO) != 0 && input.pb != nullptr;
  return OpenedFiles::Of(input).bytes() +
         (isOurs ? static_cast<std::uint64_t>(input.pb->bytes_read) : 0);
}

FoundText ReadText(const std::string& name, std::size_t maxBytes, Options& options,
                   IoDeadline& deadline) {
  const AVIOInterruptCB interrupt{&IoDeadline::Callback, &deadline};
  AVIOContext* opened = nullptr;
  Check(avio_open2(&opened, name.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()),
        "cannot open");
  const Connection connection(opened);
  FoundText found{std::string(maxBytes + 1, '\0'), name};
  const int count = avio_read(opened, reinterpret_cast<unsigned char*>(found.text.data()),
                              static_cast<int>(found.text.size()));
  if (count != AVERROR_EOF) {
    Check(count, "cannot read");
  }
  found.text.resize(static_cast<std::size_t>(std::max(count, 0)));
  if (found.text.size() > maxBytes) {
    throw Error(AVERROR(EFBIG), "cannot read");
  }
  std::uint8_t* location = nullptr;
  if (av_opt_get(opened, "location", AV_OPT_SEARCH_CHILDREN, &location) >= 0 &&
      location != nullptr) {
    found.location = reinterpret_cast<const char*>(location);
    av_free(location);
  }
  return found;
}

TextInput::TextInput(std::string text)
    : text_(std::move(text)), io_(MakeReadingIo(this, &ReadCallback, &SeekCallback)) {}

int TextInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  auto& self = *static_cast<TextInput*>(input);
  const std::size_t count =
      std::min(self.text_.size() - self.position_, static_cast<std::size_t>(size));
  std::copy_n(self.text_.begin() + static_cast<std::ptrdiff_t>(self.position_), count, buffer);
  self.position_ += count;
  return count > 0 ? static_cast<int>(count) : AVERROR_EOF;
}

std::int64_t TextInput::SeekCallback(void* input, std::int64_t offset, int whence) {
  auto& self = *static_cast<TextInput*>(input);
  const auto size = static_cast<std::int64_t>(self.text_.size());
  if ((whence & AVSEEK_SIZE) != 0) {
    return size;
  }
  const std::int64_t base = whence == SEEK_CUR   ? static_cast<std::int64_t>(self.position_)
                            : whence == SEEK_END ? size
                                                 : 0;
  if (base + offset < 0 || base + offset > size) {
    return AVERROR(EINVAL);
  }
  self.position_ = static_cast<std::size_t>(base + offset);
  return base + offset;
}

InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline) {
  LimitAllocations();
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  context->interrupt_callback = {&IoDeadline::Callback, &deadline};
  context->pb = io;
  auto files = std::make_unique<OpenedFiles>(*context);
  // On failure this frees the context itself.
  Check(avformat_open_input(&context, name.c_str(), nullptr, options.Exchange()), "cannot open");
  static_cast<void>(files.release());  // the context owns it now
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
    switch (stream_.Read({buffer, static_cast<std::size_t>(size)}, kReadTimeout, &count)) {
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
      io->eof_reached = 0;  // set by the call that was ended
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
    // To FFmpeg, an empty datagram would be the end.
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

namespace {

constexpr std::size_t kBoxHeader = 8;       // size and type
constexpr std::size_t kLongBoxHeader = 16;  // ... and a size of 64 bits
constexpr std::size_t kPiece = 32'768;
constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();

// The boxes with which a fragment may begin.
bool BeginsFragment(std::string_view type) {
  constexpr std::array<std::string_view, 5> kTypes{"moof", "styp", "sidx", "prft", "emsg"};
  return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

bool BeginsHeader(std::string_view type) {
  return type == "ftyp" || type == "moov";
}

bool IsPrintable(std::string_view type) {
  return std::all_of(type.begin(), type.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

FragmentedInput::FragmentedInput(AVIOContext* below)
    : below_(below), io_(MakeReadingIo(this, &ReadCallback)) {}

void FragmentedInput::Restart() {
  ended_ = ending_ = false;
  repeat_ = header_.size();
  io_ = MakeReadingIo(this, &ReadCallback);
}

int FragmentedInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<FragmentedInput*>(input)->Read(buffer, size);
}

int FragmentedInput::ReadBelow() {
  pending_.erase(0, given_);
  given_ = 0;
  std::array<std::uint8_t, kPiece> piece;
  const int count = avio_read_partial(below_, piece.data(), static_cast<int>(piece.size()));
  if (count > 0) {
    pending_.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count));
  }
  return count == 0 ? AVERROR_EOF : count;
}

bool FragmentedInput::BeginBox() {
  const std::size_t here = pending_.size() - given_;
  if (here < kBoxHeader) {
    return false;
  }
  const char* const box = pending_.data() + given_;
  const std::string_view type(box + 4, 4);
  std::uint64_t size = AV_RB32(box);
  if (size == 1 && here < kLongBoxHeader) {
    return false;
  }
  const std::size_t least = size == 1 ? kLongBoxHeader : kBoxHeader;
  size = size == 1 ? AV_RB64(box + kBoxHeader) : size;
  if (!IsPrintable(type) || (size != 0 && size < least)) {
    isOther_ = true;
    header_.clear();
    left_ = kToTheEnd;
    return true;
  }
  left_ = size == 0 ? kToTheEnd : size;
  if (BeginsFragment(type)) {
    ended_ = ending_;
    inFragments_ = true;
  } else if (inFragments_ && BeginsHeader(type)) {
    inFragments_ = false;
    header_.clear();
  }
  return true;
}

void FragmentedInput::Remember(std::size_t count) {
  if (inFragments_ || isOther_) {
    return;
  }
  header_.append(pending_, given_, count);
  if (header_.size() > kMaxHeader) {
    isOther_ = true;
    header_.clear();
  }
}

int FragmentedInput::Read(std::uint8_t* buffer, int size) {
  const auto room = static_cast<std::size_t>(size);
  if (repeat_ > 0) {
    const std::size_t count = std::min(repeat_, room);
    std::copy_n(header_.end() - static_cast<std::ptrdiff_t>(repeat_), count, buffer);
    repeat_ -= count;
    return static_cast<int>(count);
  }
  int result = 1;
  while (!ended_) {
    // The rest of a stream that ends within the header of a box passes unchanged.
    if (left_ == 0 && !BeginBox() && result == AVERROR_EOF) {
      left_ = kToTheEnd;
    }
    if (ended_) {
      break;
    }
    const std::size_t here = pending_.size() - given_;
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>({left_, here, room}));
    if (count > 0) {
      std::copy_n(pending_.begin() + static_cast<std::ptrdiff_t>(given_), count, buffer);
      Remember(count);
      given_ += count;
      left_ -= left_ == kToTheEnd ? 0 : count;
      return static_cast<int>(count);
    }
    if (result <= 0) {
      return result;
    }
    result = ReadBelow();
  }
  return AVERROR_EOF;
}

}  // namespace host::ffmpeg
