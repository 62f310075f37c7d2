// PacketSource: the packets of one source, and what is known of its streams.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace host {

// An open source. Its reader itself reads it from the network or the disk (MediaInput), or one
// thread does so for several readers (SharedInput). It knows which streams are its reader's tracks.
//
// Owned by one reader and called on its thread; Cancel by any thread.
class PacketSource {
 public:
  enum class Outcome {
    kPacket,
    kNothing,   // try again
    kReplaced,  // the demuxer: the streams may have other indices, and nothing else changes
    kEnd,       // of the source
  };

  PacketSource() = default;
  virtual ~PacketSource() = default;
  PacketSource(const PacketSource&) = delete;
  PacketSource& operator=(const PacketSource&) = delete;

  // The next packet of any stream that is not discarded. isUnused: nothing of the source could be
  // used since it was opened. Throws MediaError.
  virtual Outcome Read(ffmpeg::Packet& packet, bool isUnused) = 0;
  // Before the first packet: what comes begins near that timestamp. False where the source cannot
  // be sought in.
  virtual bool SkipTo(Time /*timestamp*/) { return false; }
  // Begins again at its end; only then Rewind, which throws MediaError.
  virtual bool repeats() const { return false; }
  virtual void Rewind() {}
  // Makes the blocking call end within some milliseconds.
  virtual void Cancel() = 0;
  // See MediaReader.
  virtual bool canGoOn() const { return false; }

  // Its streams and programs, as they are at the latest packet; not to be read from. The caller may
  // change what is discarded.
  virtual AVFormatContext& context() const = 0;
  virtual SourceKind kind() const = 0;
  // How many streams there were when it was opened: those after them began later.
  virtual unsigned openedStreams() const = 0;
  virtual const std::vector<std::string>& unknownOptions() const = 0;
  // Since the reader has it.
  virtual SourceCounts counts() const = 0;
  // Number of the only program that comes, of those that the source has; 0: all come.
  virtual int onlyProgram() const { return 0; }
  // How often the demuxer was replaced.
  virtual std::uint64_t exchanges() const { return 0; }
  // Throws an error about this source.
  [[noreturn]] virtual void Fail(MediaError::Kind kind, const std::string& reason) const = 0;
  // A stream that the demuxer has not probed, since it began later, has this form.
  virtual void OnProbed(int /*index*/, const AVCodecParameters& /*form*/) {}

  // The stream of that index is read as the video or the audio from now on.
  virtual void Select(TrackKind kind, int index);
  // None for a stream that is not selected.
  std::optional<TrackKind> KindOf(int index) const;
  // Only of a selected kind.
  AVStream& stream(TrackKind kind) const;

 protected:
  using Selection = std::array<std::optional<int>, kTrackKinds.size()>;  // by TrackKind
  const Selection& selection() const { return selection_; }
  // The same streams have other indices.
  void Move(const Selection& selection) { selection_ = selection; }

 private:
  Selection selection_;
};

}  // namespace host
