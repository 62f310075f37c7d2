// SimulatedChannel: a channel of the host whose packets come from a simulated source.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <queue>
#include <vector>

#include "host/channel/audio/level_meter.h"
#include "host/channel/channel_source.h"
#include "host/channel/item_placer.h"
#include "host/channel/source/source_clock.h"
#include "host/channel/video/frame_converter.h"
#include "host/session/composer_filter.h"
#include "tools/simulation/simulated_source.h"

namespace simulation {

// What every window shows: the frame's identity in a row of its luma, and the meter beside it.
struct WindowLayout {
  static constexpr int kWidth = 72;
  static constexpr int kHeight = 64;  // a caption leaves the upper part free

  static void Write(std::uint8_t* luma, int stride, ContentId id);
  // None when the window shows no frame of the source.
  static std::optional<ContentId> Read(const std::uint8_t* luma, int stride);
  // Whether a pixel of the meter's only bar is bright, which it is when the audio is loud.
  static bool MeterIsLit(const std::uint8_t* luma, int stride);
};

// Everything of a channel but its decoders: source clock, times of the items, timeline, queue,
// presenter and pins are the host's own. One thread drives it.
class SimulatedChannel final : public host::ChannelObserver {
 public:
  struct Services {
    std::function<Time()> now;
    std::function<Time()> presentFrame;
    std::function<void(const std::string&)> violated;
    // When a frame is due.
    std::function<void(ContentId, Time)> placed;
    ComPtr<host::WallWindow> window;
    std::function<void(bool)> show;
  };

  // model outlives it; null: a channel whose source is never there.
  SimulatedChannel(std::size_t index, const SourceModel* model, std::uint64_t seed, Time begin,
                   const host::config::Canvas& canvas, const Services& services);

  host::ChannelSource& source() { return *channel_; }
  // The time of the next event: a packet that can be read, the end of a limit.
  Time nextRead() const;
  // Handles the events at that time of the wall.
  void ReadAt(Time now);
  // The machine was suspended: no limit has run meanwhile. The service uses another codec now.
  void WakeAt(Time now);
  // Hides or shows the window.
  void PlaceAt(Time now);
  // Runs the streaming thread, unless it is starved.
  void StreamAt(Time now);

  void ChannelOpened(const std::string&, const host::MediaInfo&) override {}
  void ChannelEnded(const std::string&) override {}
  void ChannelFailed(const std::string&, const std::string&,
                     std::optional<std::chrono::milliseconds>) override {}

 private:
  struct Frame {
    ContentId id;
    std::optional<Time> given;
    Time duration = 0;
    std::int64_t jumps = 0;
    bool operator<(const Frame& other) const { return other.id < id; }  // the first one on top
  };
  // One opening of the source.
  struct Session {
    explicit Session(const SimulatedChannel& channel);

    host::SourceClock clock{10 * host::kSecond};
    std::size_t videoStream;
    std::size_t audioStream;
    host::ItemTimes videoTimes;
    std::int64_t jumps = 0;            // of the timestamps of its video
    std::optional<Time> ampleSince{};  // since then its lead has been longer than needed
    host::ItemTimes audioTimes;
    std::priority_queue<Frame> decoder;
    host::RateLimiter limiter;
    host::LevelMeter meter;
    host::ItemPlacer placer;
  };

  bool Suffers(Fault::Kind kind, Time now) const;
  void Open(Time now);
  void Fail(Time now);
  void Handle(const SimulatedPacket& packet);
  void Show(const Frame& frame);
  void WatchLead(Time now);
  void HandleAudio(const SimulatedPacket& packet, const host::SourceClock::Mapped& mapped);
  void Announce(host::SourceEvent::Kind kind);

  const SourceModel* const model_;
  const host::config::Canvas canvas_;
  const Services services_;
  bool isShown_ = true;
  std::optional<SimulatedSource> packets_;
  ComPtr<host::ChannelSource> channel_;
  std::shared_ptr<const host::AudioFormat> format_;
  std::unique_ptr<Session> session_;
  std::size_t fault_ = 0;  // the next one that may be a failure of the connection
  Time opensAt_;
  Time latestPacket_ = 0;
  bool silent_ = false;  // the read limit is over
  Time shown_ = 0;       // when everything that was queued has been shown
};

}  // namespace simulation
