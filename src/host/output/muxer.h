// Writes one output: the mosaic and any number of audio tracks.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ffmpeg/file_output.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/ffmpeg/pipe_output.h"
#include "host/units.h"

struct AVCodecParameters;

namespace host {

// Add the tracks, Start, Write, Finish. Packets of all tracks are interleaved by time here. Within
// a track decoding times are made to increase, as containers demand: a packet that falls behind,
// for example when a channel re-synchronised, is moved just behind the one before it and counted.
// Owned and called by one output on its thread, except Cancel.
class Muxer {
 public:
  struct Settings {
    std::string url;     // path or URL
    std::string format;  // FFmpeg's name; empty: by the name of the file or the scheme of the URL
    std::string title;   // of the file, or the service name of a transport stream; may be empty
    std::chrono::milliseconds writeLimit{10'000};  // for each call that may wait for a consumer
    // Packets of all tracks are brought into order here; otherwise they come in order.
    bool interleaves = true;
    // A file is to be as long as what was written, whenever the program is killed, as far as the
    // container and the options allow it (see RecordingIn).
    bool survivesKill = false;
    // A track that is silent for longer no longer holds the others back.
    Time interleaveLimit = 10 * kSecond;
    std::map<std::string, std::string> options;  // of FFmpeg's container and protocol
  };

  // Throws ffmpeg::Error when there is no such format.
  explicit Muxer(Settings settings);
  // Finishes a started output that was not finished, without a word when that fails.
  ~Muxer();
  Muxer(const Muxer&) = delete;
  Muxer& operator=(const Muxer&) = delete;

  // The number of the new track; only before Start. Throws ffmpeg::Error when the container cannot
  // hold it.
  std::size_t AddVideo(const AVCodecParameters& parameters, Ratio frameRate);
  // language: ISO 639, may be empty, as may be the name.
  std::size_t AddAudio(const AVCodecParameters& parameters, const std::string& name,
                       const std::string& language);

  // Opens the file or connection and writes the header. Throws ffmpeg::Error.
  void Start();
  // The packet's stamps are in units of 100 ns. Its data are not copied. A packet that the
  // container cannot take because it is damaged is left out: false. Throws ffmpeg::Error.
  bool Write(std::size_t track, ffmpeg::Packet packet);
  // Writes what is still held back and the end of the file; nothing may follow. Throws
  // ffmpeg::Error.
  void Finish();
  // Ends a blocking call, from any thread, for good.
  void Cancel() { deadline_.Cancel(); }

  // Whether encoders must put their headers into their parameters.
  bool wantsGlobalHeader() const;
  // Further options, before Start; they take the place of those of the settings. Likewise the URL.
  void SetOption(const std::string& key, const std::string& value);
  void SetUrl(const std::string& url);
  // Before Start: what is to be written, where that is one file.
  void SetFile(std::unique_ptr<ffmpeg::FileOutput> file);
  // The output is one file, which the muxer creates itself unless it is given one.
  bool writesFile() const;
  std::string formatName() const;
  // Options of the settings that neither container nor protocol knows; after Start.
  const std::vector<std::string>& unknownOptions() const { return unknownOptions_; }
  // Packets that were moved because they fell behind.
  std::uint64_t movedPackets() const { return movedPackets_; }

 private:
  struct Track {
    std::optional<std::int64_t> lastDts;  // in the container's units
    ffmpeg::PacketFilter filter;          // null: packets are written as they come
  };

  bool TakesAdts() const;
  void FlushBefore(const AVPacket& packet);
  bool WriteFiltered(std::size_t track, ffmpeg::Packet packet);
  void Open(ffmpeg::Options& options);
  std::size_t AddTrack(const AVCodecParameters& parameters);

  Settings settings_;
  ffmpeg::IoDeadline deadline_;
  // What output_ writes, when that is a file or a pipe.
  std::unique_ptr<ffmpeg::FileOutput> file_;
  std::optional<ffmpeg::PipeOutput> pipe_;
  ffmpeg::OutputFormat output_;
  std::vector<Track> tracks_;
  std::vector<std::string> unknownOptions_;
  Time flushInterval_ = 0;       // 0: nothing is flushed
  std::optional<Time> flushed_;  // time of the packet before which it was
  bool started_ = false;
  std::uint64_t movedPackets_ = 0;
};

}  // namespace host
