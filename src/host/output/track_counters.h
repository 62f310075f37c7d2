// What became of the packets of one output, for each of its tracks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace host {

// Once nothing waits any more, received = written + dropped + leftOut.
struct TrackCounters {
  std::atomic<std::uint64_t> received{0};
  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> dropped{0};  // the output's queue was full, or it was not open
  std::atomic<std::uint64_t> leftOut{0};  // no place in the file: too late, too early, refused
  std::atomic<std::uint64_t> silence{0};  // written besides, before the channel's first packet
};

// Of the mosaic's video and of the audio of every channel. Any thread.
class OutputCounters {
 public:
  static constexpr int kVideo = -1;

  explicit OutputCounters(std::size_t channels)
      : channels_(channels), tracks_(std::make_unique<TrackCounters[]>(channels + 1)) {}

  // track: kVideo or the number of the channel, which the wall has.
  TrackCounters& of(int track) { return tracks_[static_cast<std::size_t>(track + 1)]; }
  const TrackCounters& of(int track) const { return tracks_[static_cast<std::size_t>(track + 1)]; }
  std::size_t channels() const { return channels_; }

 private:
  std::size_t channels_;
  std::unique_ptr<TrackCounters[]> tracks_;
};

}  // namespace host
