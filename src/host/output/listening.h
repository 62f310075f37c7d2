// Listening: the audio of the channels that somebody listens to.
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

// A feed of fragments for each channel, on the wall's clock as the preview is: AAC is passed on,
// everything else is encoded to AAC once for all listeners. Has a thread of low priority, and a
// queue that drops its oldest packets. A channel without listeners costs a comparison.
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
  // Exists while a channel has listeners; opened again when its timestamps go back.
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
