// Opens and reads sources where FFmpeg's own input is not enough.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/byte_stream.h"

namespace host::ffmpeg {

// name: path or URL. io: read in place of it, if not null; outlives the context, as does the
// deadline, which ends blocking calls. Removes the used options. Throws Error.
InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline);

// Bytes that an open input has read so far, including the segments of a playlist; 0 where the
// demuxer opens its own sockets. By the thread that reads it.
std::uint64_t BytesRead(const AVFormatContext& input);

// A small text, and where it was found: a server may have redirected.
struct FoundText {
  std::string text;
  std::string location;
};
// The text at a path or URL. Throws Error, also when it is longer than maxBytes.
FoundText ReadText(const std::string& name, std::size_t maxBytes, Options& options,
                   IoDeadline& deadline);

// A text that is read in place of a file. Owned by its reader, and must outlive the format context
// that reads through io(). One thread.
class TextInput {
 public:
  explicit TextInput(std::string text);
  TextInput(const TextInput&) = delete;
  TextInput& operator=(const TextInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  static std::int64_t SeekCallback(void* input, std::int64_t offset, int whence);

  const std::string text_;
  std::size_t position_ = 0;
  CallbackIo io_;
};
// Connects; the deadline outlives the connection. Removes the options that the protocol used.
// Throws Error, after the deadline at the latest.
Connection OpenConnection(const std::string& url, IoDeadline& deadline, Options& options);
// The most that is read at once; no datagram is longer.
inline constexpr std::size_t kMaxPiece = 65'536;  // bytes

// FFmpeg reads files with blocking calls; a pipe that stays open and silent would block its reader
// indefinitely. This input checks its deadline while it waits for data.
//
// Owned by its reader, and must outlive the format context that reads through io().
class PipeInput {
 public:
  // Whether a source is a pipe, a device or the standard input ("-" or "pipe:").
  static bool Serves(const std::string& source);

  // Throws Error when the pipe cannot be opened.
  PipeInput(const std::string& source, IoDeadline& deadline);
  PipeInput(const PipeInput&) = delete;
  PipeInput& operator=(const PipeInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);

  IoDeadline& deadline_;
  os::ByteStream stream_;
  CallbackIo io_;
};

// An input with a tap: a function that sees every byte before the demuxer does, and decides what
// the demuxer gets.
//
// Owned by its reader, and must outlive the format context that reads through io(). One thread.
class TappedInput {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // For each piece (each datagram): what is read in place of it, valid until the next call. None:
  // reading ends here with AVERROR_EXIT.
  using Tap = std::function<std::optional<Bytes>(Bytes bytes)>;
  // Reads the next piece into the buffer. Returns its number of bytes, 0 when none arrived for a
  // moment, or an AVERROR code.
  using Source = std::function<int(std::span<std::uint8_t> buffer)>;

  // Connects. Removes the options that the protocol used. Throws Error when there is no connection,
  // after the deadline at the latest.
  TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap);
  // Reads from a source that another reader receives.
  TappedInput(Source source, IoDeadline& deadline, Tap tap);
  TappedInput(const TappedInput&) = delete;
  TappedInput& operator=(const TappedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // Continues after a call that the deadline or the tap has ended. For datagrams, which have no
  // connection that could be broken.
  void Resume();

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);

  const Tap tap_;
  IoDeadline& deadline_;
  bool enough_ = false;
  std::vector<std::uint8_t> piece_;
  Bytes rest_;             // returned by the tap, not read yet
  Connection connection_;  // null if a source was given
  const Source source_;
  CallbackIo io_;
};

// A stream of fragmented MP4 that one demuxer after another can read.
//
// FFmpeg's MP4 demuxer keeps an index entry for every sample that it has read, so an endless stream
// would fill the memory. This input remembers the header of such a stream, can end reading between
// two fragments, and repeats the header to the demuxer that continues there. All other bytes pass
// unchanged.
//
// Owned by its reader, and must outlive the format contexts that read through io(). One thread.
class FragmentedInput {
 public:
  // below outlives the input, which reads it and never seeks.
  explicit FragmentedInput(AVIOContext* below);
  FragmentedInput(const FragmentedInput&) = delete;
  FragmentedInput& operator=(const FragmentedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // The first fragment has arrived, and the header is known.
  bool isFragmented() const { return inFragments_ && !header_.empty(); }
  // Reading ends before the next fragment, with AVERROR_EOF. For fragmented streams only.
  void EndBeforeNextFragment() { ending_ = isFragmented(); }
  // It has ended there.
  bool ended() const { return ended_; }
  // Afterwards: continues with the header and then that fragment.
  void Restart();

 private:
  static constexpr std::size_t kMaxHeader = std::size_t{4} << 20;  // bytes

  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);
  // Parses the header of the box at the present position; false while it has not arrived.
  bool BeginBox();
  void Remember(std::size_t count);
  int ReadBelow();

  AVIOContext* const below_;
  CallbackIo io_;
  std::string header_;      // everything before the first fragment; empty if it is too long
  std::string pending_;     // read from below_, not given yet
  std::size_t given_ = 0;   // bytes of pending_ that were given
  std::uint64_t left_ = 0;  // bytes left of the present box
  std::size_t repeat_ = 0;  // bytes of the header that are still to be repeated
  bool inFragments_ = false;
  bool isOther_ = false;  // not MP4, or the header is too long
  bool ending_ = false;
  bool ended_ = false;
};

}  // namespace host::ffmpeg
