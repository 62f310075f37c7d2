// How sources are opened and read where FFmpeg's own input is not enough.
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

// name: path or URL. io: what is read in its place, null for none; outlives the context, as does
// the deadline, which ends blocking calls. Takes out of the options what was used. Throws Error.
InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline);

// Bytes that an open input has read so far, those of the segments of a playlist included; 0 where
// its demuxer keeps its sockets to itself. By the thread that reads it.
std::uint64_t BytesRead(const AVFormatContext& input);

// A small text, and where it was found: a server may have led to another address.
struct FoundText {
  std::string text;
  std::string location;
};
// The text behind a path or URL. Throws Error, also when it is longer than so many bytes.
FoundText ReadText(const std::string& name, std::size_t maxBytes, Options& options,
                   IoDeadline& deadline);

// A text that is read in the place of a file. Owned by its reader, and must outlive the format
// context that reads through io(). One thread.
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
// Connects; the deadline outlives the connection. Takes out of the options what the protocol used.
// Throws Error, after the deadline at the latest.
Connection OpenConnection(const std::string& url, IoDeadline& deadline, Options& options);
// What is read at once: no datagram is longer.
inline constexpr std::size_t kMaxPiece = 65'536;  // bytes

// FFmpeg reads files with calls that block, which is fine for a disk; a pipe that stays open and
// silent would hold its reader indefinitely. This input waits for data and asks its deadline
// meanwhile.
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

// A demuxer tells less of its source than the source says. The tap sees every byte before the
// demuxer does, and decides what the demuxer is to get.
//
// Owned by its reader, and must outlive the format context that reads through io(). One thread.
class TappedInput {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // Of each piece that comes (of datagrams, each datagram): what is read in its place, valid until
  // the next call. None: that was enough, reading ends here with AVERROR_EXIT.
  using Tap = std::function<std::optional<Bytes>(Bytes bytes)>;
  // Puts the next piece into the buffer: its bytes, 0 when none came for a moment, or an AVERROR
  // code.
  using Source = std::function<int(std::span<std::uint8_t> buffer)>;

  // Connects. Takes out of the options what the protocol used. Throws Error when there is no
  // connection, after the deadline at the latest.
  TappedInput(const std::string& url, IoDeadline& deadline, Options& options, Tap tap);
  // Of what another reader has received.
  TappedInput(Source source, IoDeadline& deadline, Tap tap);
  TappedInput(const TappedInput&) = delete;
  TappedInput& operator=(const TappedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // Continues after a call that the deadline or the tap has ended: of datagrams nothing is broken.
  void Resume();

 private:
  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);

  const Tap tap_;
  IoDeadline& deadline_;
  bool enough_ = false;
  std::vector<std::uint8_t> piece_;
  Bytes rest_;             // that the tap gave and nobody has read yet
  Connection connection_;  // null with a source of its own
  const Source source_;
  CallbackIo io_;
};

// A stream of fragmented MP4 that one demuxer after another can read.
//
// FFmpeg's demuxer of MP4 keeps an index entry of every sample it has ever read: a stream that
// never ends fills the memory. This input remembers the header of such a stream, can end reading
// between two fragments, and gives the header again to the demuxer that continues there. All other
// bytes go through as they are.
//
// Owned by its reader, and must outlive the format contexts that read through io(). One thread.
class FragmentedInput {
 public:
  // below outlives the input, which reads it and never seeks.
  explicit FragmentedInput(AVIOContext* below);
  FragmentedInput(const FragmentedInput&) = delete;
  FragmentedInput& operator=(const FragmentedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // The first fragment has come, and its header is known.
  bool isFragmented() const { return inFragments_ && !header_.empty(); }
  // Reading ends before the next fragment, with AVERROR_EOF. Of fragmented streams only.
  void EndBeforeNextFragment() { ending_ = isFragmented(); }
  // It has ended there.
  bool ended() const { return ended_; }
  // Afterwards: what is read next is the header and then that fragment.
  void Restart();

 private:
  static constexpr std::size_t kMaxHeader = std::size_t{4} << 20;  // bytes

  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);
  // Looks at the header of a box at which the stream stands; false while it has not come.
  bool BeginBox();
  void Remember(std::size_t count);
  int ReadBelow();

  AVIOContext* const below_;
  CallbackIo io_;
  std::string header_;      // all before the first fragment; empty when it is not to be remembered
  std::string pending_;     // read from below, not given yet
  std::size_t given_ = 0;   // of pending_
  std::uint64_t left_ = 0;  // bytes of the box at which the stream stands
  std::size_t repeat_ = 0;  // bytes of the header that are to be given again
  bool inFragments_ = false;
  bool isOther_ = false;  // no MP4
  bool ending_ = false;
  bool ended_ = false;
};

}  // namespace host::ffmpeg
