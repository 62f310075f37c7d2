// Listening: the audio of those channels that somebody hears.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/output/fragments.h"
#include "host/units.h"
#include "platform/os/thread.h"
#include "util/bounded_queue.h"

namespace host {

// A feed of fragments for each channel, with the times of the wall, so that they fit to those of
// the preview: AAC as it is, everything else decoded and encoded once for all who hear it. Has a
// thread of a low priority, and a queue that drops its oldest packets. What nobody hears costs a
// comparison.
//
// Take is the channels' streaming threads'; the rest may be called by any thread.
class Listening {
 public:
  // slots: the inputs of the wall.
  explicit Listening(std::size_t slots);
  ~Listening();
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;

  // A packet as the outputs get it, of a track that has its format. Returns at once.
  void Take(std::size_t slot, const AVPacket& packet, const std::shared_ptr<AudioTrack>& track);
  // Of each slot.
  const std::vector<std::shared_ptr<FragmentFeed>>& feeds() const { return feeds_; }
  std::size_t listeners() const;

 private:
  static constexpr std::size_t kQueue = 512;

  struct Item {
    std::size_t slot = 0;
    ffmpeg::Packet packet;
    std::shared_ptr<AudioTrack> track;
  };
  // What there is while somebody hears a channel; opened again when its times go back.
  struct Track;

  void Run();
  void Handle(Item item);
  void Close(std::size_t slot);

  std::vector<std::shared_ptr<FragmentFeed>> feeds_;
  BoundedQueue<Item> queue_{kQueue};
  std::map<std::size_t, std::unique_ptr<Track>> tracks_;  // the thread's own
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
