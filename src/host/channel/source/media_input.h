// MediaInput: the packets of one source, a file or any URL that FFmpeg opens.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/channel/source/packet_source.h"
#include "host/channel/source/source_connection.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/units.h"
#include "platform/os/thread.h"

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace host {

// A second demuxer for a source that is being read: opens the source on a thread of its own and
// reads up to the position of the first demuxer, so that the reader can change over without a gap.
// Owned and called by one reader on its thread; if destroyed before it is ready, its thread ends by
// itself.
class ReplacementInput {
 public:
  // A stream that is read, and how far it has been read.
  struct Position {
    int kind = 0;     // AVMediaType
    int ordinal = 0;  // among the streams of its kind, counted from 0
    Time latest = 0;  // source time of its latest packet
  };
  struct Settings {
    std::string name;      // path or URL
    std::string playlist;  // see MediaSettings
    std::map<std::string, std::string> options;
    std::chrono::milliseconds limit{20'000};  // for opening and reading up to the positions
    std::vector<Position> positions;          // the first one decides
  };
  struct Opened {
    std::shared_ptr<ffmpeg::IoDeadline> deadline;  // of the input; outlives it
    std::shared_ptr<ffmpeg::TextInput> playlist;   // likewise
    ffmpeg::InputFormat input;
    std::vector<ffmpeg::Packet> packets;  // those read after the positions
  };

  explicit ReplacementInput(Settings settings);
  ~ReplacementInput();
  ReplacementInput(const ReplacementInput&) = delete;
  ReplacementInput& operator=(const ReplacementInput&) = delete;

  // It has been opened, or could not be.
  bool ready() { return thread_.Wait(0); }
  // Once ready: what was opened; none when it could not be.
  std::optional<Opened> Take();

 private:
  struct State;

  static void Run(State& state);

  std::shared_ptr<State> state_;
  os::Thread thread_;
};

// Reads the packets of a source, each within a limit. When the demuxer is replaced, the streams
// that it follows continue at the same packet; a change of their form that the PMT announces ends
// the reading.
class MediaInput final : public PacketSource {
 public:
  explicit MediaInput(MediaSettings settings);

  // Opens the source and probes its streams. Throws MediaError.
  void Open();
  // Once it is open: the source is complete, and each reader may begin where it wants to.
  bool isRecorded() const;
  // Follows these streams, by index. Select follows the reader's tracks by itself.
  void Follow(const std::vector<int>& streams);

  Outcome Read(ffmpeg::Packet& packet, bool isUnused) override;
  bool SkipTo(Time timestamp) override;
  bool repeats() const override { return settings_.live && settings_.options.repeat; }
  // To the beginning of a file. Also throws when the file was written again since it was opened,
  // because the demuxer knows its former content only.
  void Rewind() override;
  void Cancel() override { connection_.deadline().Cancel(); }
  bool canGoOn() const override { return canGoOn_; }
  AVFormatContext& context() const override { return *input_; }
  SourceKind kind() const override { return kind_; }
  unsigned openedStreams() const override;
  const std::vector<std::string>& unknownOptions() const override {
    return connection_.unknownOptions();
  }
  // Bytes: those read from the source, or those of its packets where the demuxer opens its own
  // sockets.
  SourceCounts counts() const override;
  int onlyProgram() const override { return connection_.onlyProgram(); }
  std::uint64_t exchanges() const override { return exchanges_; }
  [[noreturn]] void Fail(MediaError::Kind kind, const std::string& reason) const override {
    connection_.Fail(kind, reason);
  }
  void Select(TrackKind kind, int index) override;

 private:
  // Changes when a file is written again.
  struct FileState {
    std::filesystem::file_time_type written;
    std::uintmax_t size = 0;
    bool operator==(const FileState&) const = default;
  };
  // Of a stream that is followed.
  struct Position {
    std::optional<Time> latest{};       // source time of the latest packet
    std::optional<Time> resumeAfter{};  // packets up to this source time have been given
  };

  // The kind of a followed stream that the PMT announces in another form.
  std::optional<TrackKind> ChangedKind() const;
  // Whether the packet was given before the demuxer was replaced.
  bool IsRepeated(const AVPacket& packet);
  void CheckUnchanged() const;

  Outcome HandleFailure(int code, bool isUnused);
  std::optional<FileState> ReadFileState() const;
  bool LiesBehindItsData() const;

  void WatchIndex();
  void OpenReplacement();
  bool AdoptReplacement();
  void Exchange(ffmpeg::InputFormat next);
  // Index of the stream in another demuxer of the same source; throws when there is none.
  int StreamIn(const AVFormatContext& input, int index) const;
  // The followed streams, video first.
  std::vector<int> FollowedInOrder() const;

  const MediaSettings settings_;
  SourceConnection connection_;
  std::shared_ptr<ffmpeg::IoDeadline> inputDeadline_;  // of an input that was a replacement
  std::shared_ptr<ffmpeg::TextInput> inputPlaylist_;   // likewise
  ffmpeg::InputFormat input_;
  std::optional<ReplacementInput> replacement_;
  std::deque<ffmpeg::Packet> pending_;  // those that the replacement has read
  SourceKind kind_ = SourceKind::kPull;
  std::map<int, Position> followed_;  // by index
  int packetsOfInput_ = 0;
  std::uint64_t packetBytes_ = 0;
  std::uint64_t packetsDamaged_ = 0;
  std::uint64_t formerBytes_ = 0;  // of demuxers that were replaced
  std::int64_t headerEnd_ = 0;     // bytes read before the first packet
  bool canGoOn_ = false;
  int silences_ = 0;               // read limits in a row without data, of datagrams only
  std::optional<FileState> file_;  // of a repeated one, when it was opened
  std::uint64_t exchanges_ = 0;
};

}  // namespace host
