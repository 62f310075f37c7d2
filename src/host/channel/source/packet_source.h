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

// An open source. The reader itself reads from the network or the disk (MediaInput), or one thread
// does so for several readers (SharedInput). Knows which streams are the reader's tracks.
//
// Owned by one reader and called on its thread; Cancel by any thread.
class PacketSource {
 public:
  enum class Outcome {
    kPacket,
    kNothing,   // try again
    kReplaced,  // the demuxer was replaced: streams may have other indices, nothing else changes
    kEnd,       // of the source
  };

  PacketSource() = default;
  virtual ~PacketSource() = default;
  PacketSource(const PacketSource&) = delete;
  PacketSource& operator=(const PacketSource&) = delete;

  // The next packet of any stream that is not discarded. isUnused: no packet so far could be used.
  // Throws MediaError.
  virtual Outcome Read(ffmpeg::Packet& packet, bool isUnused) = 0;
  // Before the first packet: reading begins near this timestamp. False if the source is not
  // seekable.
  virtual bool SkipTo(Time /*timestamp*/) { return false; }
  // Whether the source begins again at its end, by Rewind. Rewind throws MediaError.
  virtual bool repeats() const { return false; }
  virtual void Rewind() {}
  // Makes the blocking call end within some milliseconds.
  virtual void Cancel() = 0;
  // See MediaReader.
  virtual bool canGoOn() const { return false; }

  // The streams and programs as of the latest packet; packets are not read from it. The caller may
  // change what is discarded.
  virtual AVFormatContext& context() const = 0;
  virtual SourceKind kind() const = 0;
  // How many streams there were when it was opened; those with higher indices began later.
  virtual unsigned openedStreams() const = 0;
  virtual const std::vector<std::string>& unknownOptions() const = 0;
  // Since the reader opened it.
  virtual SourceCounts counts() const = 0;
  // Number of the only program that is delivered; 0: all are.
  virtual int onlyProgram() const { return 0; }
  // How often the demuxer was replaced.
  virtual std::uint64_t exchanges() const { return 0; }
  // Throws an error about this source.
  [[noreturn]] virtual void Fail(MediaError::Kind kind, const std::string& reason) const = 0;
  // Sets the parameters of a stream that began later and that the demuxer has not probed.
  virtual void OnProbed(int /*index*/, const AVCodecParameters& /*form*/) {}

  // The stream of this index is the video or the audio track from now on.
  virtual void Select(TrackKind kind, int index);
  // None if the stream is not selected.
  std::optional<TrackKind> KindOf(int index) const;
  // Only of a selected kind.
  AVStream& stream(TrackKind kind) const;

 protected:
  using Selection = std::array<std::optional<int>, kTrackKinds.size()>;  // by TrackKind
  const Selection& selection() const { return selection_; }
  // The selected streams have new indices.
  void Move(const Selection& selection) { selection_ = selection; }

 private:
  Selection selection_;
};

}  // namespace host
