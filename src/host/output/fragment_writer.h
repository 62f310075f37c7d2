// FragmentWriter: packets of one track as fragmented MP4.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVCodecParameters;

namespace host {

// One fragment for each packet, complete as soon as the packet is there. Decode times are those of
// the packets, whatever the first one has: tracks that have writers of their own fit together.
// Owned and called by one thread.
class FragmentWriter {
 public:
  // Headers of the codec are in the parameters. Throws ffmpeg::Error when MP4 cannot hold it.
  explicit FragmentWriter(const AVCodecParameters& parameters);
  FragmentWriter(const FragmentWriter&) = delete;
  FragmentWriter& operator=(const FragmentWriter&) = delete;

  // ftyp and moov.
  const std::string& description() const { return description_; }
  // moof and mdat. The packet's timestamps and its duration are in units of 100 ns; its decode time
  // is not before the end of the packet before it, but for what times are rounded by. Throws
  // ffmpeg::Error.
  std::string Write(ffmpeg::Packet packet);

 private:
  static int OnWrite(void* self, std::uint8_t* bytes, int size);
  std::string TakeWritten();

  std::string written_;
  ffmpeg::CallbackIo io_;
  ffmpeg::OutputFormat output_;  // is destroyed first: it writes through io_
  std::string description_;
  std::int64_t end_ = std::numeric_limits<std::int64_t>::min();  // in the units of the track
};

// As in a MIME type, "avc1.4d401f" or "mp4a.40.2"; none for what is neither H.264 nor AAC or says
// too little about itself.
std::optional<std::string> CodecText(const AVCodecParameters& parameters);

}  // namespace host
