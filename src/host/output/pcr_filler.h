// PcrFiller: clock references of a transport stream between frames that are far apart.
#pragma once

#include <cstdint>
#include <optional>

#include "host/ffmpeg/handles.h"

namespace host {

// Passes a transport stream through to the I/O context below it, and puts packets that hold nothing
// but a PCR before what would be more than 80 ms later than the latest one. They have the PID and
// the continuity counter of the packets that carry the PCR.
//
// Owned and called by a muxer that writes each packet at once, without a constant rate.
class PcrFiller {
 public:
  // below outlives it.
  explicit PcrFiller(AVIOContext* below);

  AVIOContext* io() const { return io_.get(); }
  AVIOContext* below() const { return below_; }
  // Before a packet is written. dts: in units of 1/90,000 s. carriesPcr: its PES packet has one.
  void Announce(std::int64_t dts, bool carriesPcr);
  // Writes what is buffered. Negative: FFmpeg's code of the failure.
  int Flush();

 private:
  static int OnWrite(void* filler, std::uint8_t* bytes, int size);
  int Write(const std::uint8_t* bytes, int size);
  void Note(const std::uint8_t* packet);
  void Insert(std::int64_t pcr);

  AVIOContext* const below_;
  std::optional<std::int64_t> latest_;     // PCR, in units of 1/90,000 s
  std::optional<std::int64_t> offset_;     // of the PCR from the DTS of its packet
  std::optional<std::int64_t> announced_;  // DTS of the packet that carries the next PCR
  int pid_ = 0;
  int counter_ = 0;
  ffmpeg::CallbackIo io_;
};

}  // namespace host
