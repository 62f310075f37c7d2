// MediaInput: the packets of one source, a file or any URL that FFmpeg opens.
#pragma once

#include <array>
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

// The how-many-th of its kind a stream is, counted from 0. index: of the stream in the input.
int OrdinalOf(const AVFormatContext& input, int index);

// Opens it on a thread of its own and reads up to where the first one is, so that its reader can
// change over without a gap. Owned and called by one reader on its thread; one that is destroyed
// before it is ready ends by itself.
class ReplacementInput {
 public:
  // A stream that is read: the how-many-th of its kind, and what has been read of it.
  struct Position {
    int kind = 0;     // AVMediaType
    int ordinal = 0;  // among the streams of its kind, counted from 0
    Time latest = 0;  // source time of its latest packet
  };
  struct Settings {
    std::string name;      // path or URL
    std::string playlist;  // see MediaSettings
    std::map<std::string, std::string> options;
    std::chrono::milliseconds limit{20'000};  // to open it and to read up to the positions
    std::vector<Position> positions;          // the first one decides
  };
  struct Opened {
    std::shared_ptr<ffmpeg::IoDeadline> deadline;  // of the input; outlives it
    std::shared_ptr<ffmpeg::TextInput> playlist;   // likewise
    ffmpeg::InputFormat input;
    std::vector<ffmpeg::Packet> packets;  // that it gave, which come after the positions
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

// Reads the packets of a source, each within a limit. It knows which streams are read (Select):
// those continue at the same packet when the demuxer is replaced, and a change of their form that
// the PMT announces ends the reading.
//
// Owned by one reader and called on its thread; Cancel by any thread.
class MediaInput {
 public:
  enum class Outcome {
    kPacket,
    kNothing,   // try again
    kReplaced,  // the demuxer: the streams may have other indices, and nothing else changes
    kEnd,       // of the source
  };

  // settings outlive the input.
  explicit MediaInput(const MediaSettings& settings);

  // Opens the source and probes its streams. Throws MediaError.
  void Open();
  // The next packet of any stream that is not discarded. isUnused: nothing of the source could be
  // used since it was opened. Throws MediaError.
  Outcome Read(ffmpeg::Packet& packet, bool isUnused);
  // Before the first packet: what comes begins near that timestamp. False where the source cannot
  // be sought in.
  bool SkipTo(Time timestamp);
  // To the beginning of a file. Throws MediaError.
  void Rewind();
  // Throws MediaError when the file was written again since it was opened: the demuxer knows its
  // former content only.
  void CheckUnchanged() const;
  void Cancel() { connection_.deadline().Cancel(); }
  // See MediaReader.
  bool canGoOn() const { return canGoOn_; }

  AVFormatContext& context() const { return *input_; }
  SourceKind kind() const { return kind_; }
  bool repeats() const { return settings_.live && settings_.options.repeat; }
  const std::vector<std::string>& unknownOptions() const { return connection_.unknownOptions(); }
  // Bytes: that were read of the source, or of its packets where its demuxer keeps its sockets to
  // itself.
  SourceCounts counts() const;
  // The program that is wanted, by its number where the name is known already.
  config::ProgramChoice program() const {
    const int number = connection_.onlyProgram();
    return number != 0 ? config::ProgramChoice{number, {}} : settings_.program;
  }
  // How often the demuxer was replaced.
  std::uint64_t exchanges() const { return exchanges_; }
  // Throws an error about this source.
  [[noreturn]] void Fail(MediaError::Kind kind, const std::string& reason) const {
    connection_.Fail(kind, reason);
  }

  // The stream of that index is read as the video or the audio from now on.
  void Select(TrackKind kind, int index);
  // None for a stream that is not selected.
  std::optional<TrackKind> KindOf(int index) const;
  // Only of a selected kind.
  AVStream& stream(TrackKind kind) const;
  // Whether the packet was given before the demuxer was replaced. To be called once for each packet
  // of a selected stream.
  bool IsRepeated(TrackKind kind, const AVPacket& packet);

 private:
  // Changes when a file is written again.
  struct FileState {
    std::filesystem::file_time_type written;
    std::uintmax_t size = 0;
    bool operator==(const FileState&) const = default;
  };
  struct Selected {
    int index = 0;
    std::optional<Time> latest{};       // source time of the latest packet
    std::optional<Time> resumeAfter{};  // what comes of the source up to that time has been given
  };

  const std::optional<Selected>& selected(TrackKind kind) const {
    return selected_[static_cast<std::size_t>(kind)];
  }
  // Of the selected ones, the kind whose stream the PMT announces in another form.
  std::optional<TrackKind> ChangedKind() const;

  Outcome HandleFailure(int code, bool isUnused);
  std::optional<FileState> ReadFileState() const;
  bool LiesBehindItsData() const;

  void WatchIndex();
  void OpenReplacement();
  bool AdoptReplacement();
  void Exchange(ffmpeg::InputFormat next);
  // Index of the selected stream in another demuxer of the same source; throws where it is not.
  int StreamIn(const AVFormatContext& input, TrackKind kind) const;

  const MediaSettings& settings_;
  SourceConnection connection_;
  std::shared_ptr<ffmpeg::IoDeadline> inputDeadline_;  // of an input that was a replacement
  std::shared_ptr<ffmpeg::TextInput> inputPlaylist_;   // likewise
  ffmpeg::InputFormat input_;
  std::optional<ReplacementInput> replacement_;
  std::deque<ffmpeg::Packet> pending_;  // that the replacement has read
  SourceKind kind_ = SourceKind::kPull;
  std::array<std::optional<Selected>, kTrackKinds.size()> selected_;  // by TrackKind
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
