// FollowTrack: the audio of the channel that is followed, as one track whose format never changes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"
#include "util/bounded_queue.h"

namespace host {

// Cuts and joins the decoded audio of channels that are followed one after the other, in the order
// of time, whatever the order in which their packets come. Both sides of a change are faded for
// five milliseconds, so that it does not click. Owned and called by one thread.
class FollowMixer {
 public:
  static constexpr Time kFade = 5 * kMillisecond;
  // How long the audio of the former channel is waited for.
  static constexpr Time kFormerTimeout = kSecond / 2;

  using Sink = std::function<void(const AVFrame& frame, Time start)>;

  // Changes to a channel, or to none, at that time, but not before the previous change.
  void Follow(std::optional<std::size_t> channel, Time from);
  // Decoded samples of a channel, whose timestamps increase.
  void Push(std::size_t channel, ffmpeg::Frame frame, Time start, const Sink& sink);

 private:
  struct Stretch {
    std::optional<std::size_t> channel;
    Time from = 0;
    std::uint64_t number = 0;
  };
  struct Piece {
    ffmpeg::Frame frame;
    Time start = 0;
    std::uint64_t cutFor = 0;  // number of the last stretch that took its part
  };

  Time EndOf(std::size_t stretch) const;
  void Cut(const Piece& piece, std::size_t stretch, const Sink& sink) const;
  void Emit(const Sink& sink);

  std::deque<Stretch> stretches_;                     // the first one is being emitted
  std::map<std::size_t, std::deque<Piece>> waiting_;  // by channel
  std::map<std::size_t, Time> reached_;               // end of the latest frame, by channel
  Time latest_ = 0;                                   // of all channels
  std::uint64_t stretchCount_ = 0;
};

// A track of AAC, 48 kHz, stereo. Take and Follow may be called by any thread and return at once;
// decoding and encoding have a thread of their own, and a queue that drops its oldest packets.
class FollowTrack {
 public:
  using TakePacket = std::function<void(const AVPacket& packet)>;
  using TakeSamples = FollowMixer::Sink;

  // tracks: one for each channel, with the format of its packets. take: called by the track's
  // thread; outlives it.
  FollowTrack(std::vector<std::shared_ptr<AudioTrack>> tracks, TakePacket take);
  // Without encoding: takeSamples gets the decoded samples, otherwise as take.
  FollowTrack(std::vector<std::shared_ptr<AudioTrack>> tracks, TakeSamples takeSamples);
  ~FollowTrack();
  FollowTrack(const FollowTrack&) = delete;
  FollowTrack& operator=(const FollowTrack&) = delete;

  const std::shared_ptr<AudioTrack>& audio() const { return audio_; }
  // from: in the wall's time, as the packets are.
  void Follow(std::optional<std::size_t> channel, Time from);
  void Take(std::size_t channel, const AVPacket& packet);

 private:
  static constexpr std::size_t kQueue = 256;
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  struct Item {
    std::size_t channel = 0;
    ffmpeg::Packet packet;  // null: a change of the channel that is followed
    std::optional<std::size_t> follow{};
    Time from = 0;
  };

  void Run();
  void Decode(const Item& item);

  const std::vector<std::shared_ptr<AudioTrack>> tracks_;
  const TakePacket take_;          // empty: nothing is encoded
  const TakeSamples takeSamples_;  // empty: packets are encoded
  const std::shared_ptr<AudioTrack> audio_ = std::make_shared<AudioTrack>();
  // The channel that is followed and the one before it: only their packets are queued.
  std::atomic<std::size_t> wanted_{kNone};
  std::atomic<std::size_t> former_{kNone};
  BoundedQueue<Item> queue_{kQueue};
  // The thread's own.
  struct Decoder {
    std::shared_ptr<const AudioFormat> format;
    ffmpeg::Codec codec;
  };
  std::map<std::size_t, Decoder> decoders_;
  FollowMixer mixer_;
  std::unique_ptr<AudioEncoder> encoder_;  // null: nothing is encoded
  os::Thread thread_;
};

}  // namespace host
