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

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/ffmpeg/outputs.h"
#include "host/output/transport_stream.h"
#include "host/units.h"

struct AVCodecParameters;

namespace host {

// Add the tracks, Start, Write, Finish. Packets of all tracks are interleaved by time here. Within
// a track decoding times are made to increase, as containers demand: a packet that falls behind,
// for example when a channel re-synchronised, is moved just behind the one before it.
// Owned and called by one output on its thread, except Cancel.
class Muxer {
 public:
  struct Settings {
    std::string url;     // path or URL
    std::string format;  // FFmpeg's name; empty: by the name of the file or the scheme of the URL
    std::string title;   // of the file, or the service name of a transport stream; may be empty
    // For each call that may wait for a consumer. An output that listens waits for its first
    // consumer without a limit.
    std::chrono::milliseconds writeLimit{10'000};
    // Until a connection is made or a pipe has a reader.
    std::chrono::milliseconds openLimit{10'000};
    // Packets of all tracks are brought into order here; otherwise they come in order.
    bool interleaves = true;
    // A file can be played whenever the program is killed, as far as the container and the options
    // allow it (see RecordingIn).
    bool survivesKill = false;
    // A transport stream over UDP is sent evenly, unless the options give it a rate.
    bool isPaced = false;
    // Of a transport stream: shorter delay in the decoder (see DecoderDelay), and each frame is
    // sent faster.
    bool lowDelay = false;
    // A track that is silent for longer no longer holds the others back.
    Time interleaveLimit = 10 * kSecond;
    std::map<std::string, std::string> options;  // of FFmpeg's container and protocol
  };

  // Throws ffmpeg::Error when there is no such format.
  explicit Muxer(Settings settings);
  // Finishes a started file that was not finished, ignoring failures; a playlist is left without
  // its end, and a connection is closed.
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
  // The packet's timestamps are in units of 100 ns. Its data are not copied. A packet that the
  // container cannot take because it is damaged is left out: false. Throws ffmpeg::Error.
  bool Write(std::size_t track, ffmpeg::Packet packet);
  // Writes what is still held back and the trailer; nothing may follow. Throws ffmpeg::Error.
  void Finish();
  // Ends a blocking call, from any thread, permanently.
  void Cancel() {
    deadline_.Cancel();
    pacing_.Cancel();
  }

  // Whether encoders must put their headers into their parameters.
  bool wantsGlobalHeader() const;
  // Further options, before Start; they take the place of those of the settings. Likewise the URL.
  void SetOption(const std::string& key, const std::string& value);
  void SetUrl(const std::string& url);
  // Before Start: the file to write, where the output is one file.
  void SetFile(std::unique_ptr<ffmpeg::FileOutput> file);
  // The output is one file, which the muxer creates itself unless it is given one.
  bool writesFile() const;
  // Part of what was written after the header has left the program: it is in the file, or on its
  // way to the other end.
  bool hasDelivered() const;
  // Bytes that have reached the file; 0 where there is none. Any thread, once it has its file.
  std::int64_t fileBytes() const { return file_ ? file_->written() : 0; }
  // A file that was created for this output is removed when the output ends.
  void DiscardFile();
  std::string formatName() const;
  const AVOutputFormat& format() const { return *output_->oformat; }
  // Options of the settings that neither container nor protocol knows; after Start.
  const std::vector<std::string>& unknownOptions() const { return unknownOptions_; }

 private:
  struct Track {
    std::optional<std::int64_t> lastDts;  // in the container's units
    ffmpeg::PacketFilter filter;          // null: packets are written as they come
  };

  bool TakesAdts() const;
  void FillPcrs();
  void EndPcrs();
  void FlushBefore(const AVPacket& packet);
  bool WriteFiltered(std::size_t track, ffmpeg::Packet packet);
  void Open(ffmpeg::Options& options);
  void Connect(ffmpeg::Options& options);
  std::size_t AddTrack(const AVCodecParameters& parameters);

  Settings settings_;
  ffmpeg::IoDeadline deadline_;
  ffmpeg::IoDeadline pacing_;  // of the connection behind paced_; ends it only when cancelled
  // What output_ writes through, when that is not FFmpeg's own.
  std::unique_ptr<ffmpeg::FileOutput> file_;
  std::optional<ffmpeg::PipeOutput> pipe_;
  std::optional<PacedOutput> paced_;
  std::optional<PcrFiller> pcrs_;  // of a transport stream; output_ writes through it
  ffmpeg::OutputFormat output_;
  std::vector<Track> tracks_;
  std::optional<std::size_t> videoTrack_;
  std::vector<std::string> unknownOptions_;
  Time flushInterval_ = 0;       // 0: nothing is flushed
  std::optional<Time> flushed_;  // time of the packet before which it was
  bool started_ = false;
  std::int64_t headerEnd_ = 0;  // bytes
  bool written_ = false;        // a packet after the header
};

}  // namespace host
