// Fragmented MP4 for viewers of the running wall: written from packets, and handed to any number of
// them, however slow.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/os/mutex.h"

struct AVCodecParameters;

namespace host {

// What a player has to know before the first fragment of video or audio; the members of the other
// are 0.
struct FragmentFormat {
  std::string codec;  // as in the MIME type: "avc1.4d401f", "mp4a.40.2"
  int width = 0;      // pixels
  int height = 0;
  Ratio frameRate{0, 1};
  int sampleRate = 0;  // hertz
  int channels = 0;
};

// A piece of fragmented MP4. The first one of a track, and the first one after each change of the
// format, describes the track; all others hold one frame or packet.
struct Fragment {
  bool isKey = false;       // it can be decoded without those before it
  std::uint64_t frame = 0;  // of video: the number of the composed frame
  std::string bytes;
  std::optional<FragmentFormat> format{};  // of one that describes the track
};

// One track. Each fragment exists once, however many viewers have it waiting. A viewer that is slow
// loses what waits up to the newest keyframe, or up to the next one, and never what describes the
// track. One thread publishes, any thread subscribes; nobody waits for a viewer.
class FragmentFeed : public std::enable_shared_from_this<FragmentFeed> {
 public:
  using Piece = std::shared_ptr<const Fragment>;
  struct Limits {
    std::size_t bytes = 2 << 20;
    std::size_t fragments = 50;
  };

  // One viewer, for as long as it exists; destroyed on any thread.
  class Subscription {
   public:
    Subscription(std::shared_ptr<FragmentFeed> feed, Limits limits, std::function<void()> wake);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // The next piece; null when none waits.
    Piece Next();
    // Why the feed has ended; empty while it has not.
    std::string end() const;
    // Fragments that were left out because the viewer was slow.
    std::uint64_t skipped() const;

   private:
    friend class FragmentFeed;
    void Add(const Piece& piece);
    void End(const std::string& why);
    void SkipToKeyframe() REQUIRES(lock_);

    const std::shared_ptr<FragmentFeed> feed_;
    const Limits limits_;
    const std::function<void()> wake_;
    mutable os::Mutex lock_;
    Piece description_ GUARDED_BY(lock_);  // that waits; comes before the fragments
    std::deque<Piece> waiting_ GUARDED_BY(lock_);
    std::size_t bytes_ GUARDED_BY(lock_) = 0;
    bool waitsForKey_ GUARDED_BY(lock_) = true;
    std::uint64_t skipped_ GUARDED_BY(lock_) = 0;
    std::string end_ GUARDED_BY(lock_);
  };

  // joined: called by the thread that subscribes, without a lock; may be empty.
  static std::shared_ptr<FragmentFeed> Create(std::function<void()> joined = {}) {
    return std::make_shared<FragmentFeed>(std::move(joined));
  }
  explicit FragmentFeed(std::function<void()> joined) : joined_(std::move(joined)) {}

  // wake: called under the lock of the feed, by the thread that publishes or subscribes, when a
  // first fragment waits or the feed has ended: it only wakes another thread.
  std::shared_ptr<Subscription> Subscribe(Limits limits, std::function<void()> wake);
  void Publish(Fragment fragment);
  // The description is no longer valid: new subscribers wait for the next one.
  void Forget();
  // Ends all subscriptions.
  void End(const std::string& why);
  // Any thread, without a lock.
  std::size_t viewers() const { return viewers_; }

 private:
  const std::function<void()> joined_;
  std::atomic<std::size_t> viewers_{0};
  os::Mutex lock_;
  Piece description_ GUARDED_BY(lock_);
  std::vector<std::weak_ptr<Subscription>> subscriptions_ GUARDED_BY(lock_);
};

// Packets of one track as fragments: one for each packet, complete as soon as the packet is there.
// Decode times are those of the packets and need not begin at 0: tracks of several writers fit
// together. Owned and called by one thread.
class FragmentWriter {
 public:
  // Headers of the codec are in the parameters. Throws ffmpeg::Error when MP4 cannot hold it.
  explicit FragmentWriter(const AVCodecParameters& parameters);
  FragmentWriter(const FragmentWriter&) = delete;
  FragmentWriter& operator=(const FragmentWriter&) = delete;

  // ftyp and moov.
  const std::string& description() const { return description_; }
  // moof and mdat. The packet's timestamps and its duration are in units of 100 ns; its decode time
  // is no earlier than the end of the packet before it, but for rounding. Throws ffmpeg::Error.
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

// As in a MIME type, "avc1.4d401f" or "mp4a.40.2"; none for other codecs and where the extradata
// says too little.
std::optional<std::string> CodecText(const AVCodecParameters& parameters);

}  // namespace host
