// RenditionOpener: opens a rendition beside the one that is read.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "host/channel/source/media_reader.h"
#include "host/units.h"
#include "platform/os/thread.h"

namespace host {

// How the times of two renditions are aligned.
enum class Alignment {
  kTimestamps,  // playlists: by their timestamps, which are the same
  kBeginning,   // files: both begin together
  kArrival,     // all others: what arrives at the same time belongs together
};
Alignment AlignmentOf(const MediaInfo& read, const MediaInfo& next);

// The time of a reader's item by which another rendition is aligned with it.
Time CommonTime(const MediaReader& reader, Alignment alignment, TrackKind kind, Time start);
// The one of time, time + period, time - period, ... that is nearest to near.
Time NearestTurn(Time time, Time period, Time near);

// Opens a rendition on a thread of its own and reads up to the first frame that is not before the
// position of the rendition that is read, so that the reader can change over without a gap.
//
// Owned and called by one reader on its thread; if destroyed before it is ready, its thread ends by
// itself.
class RenditionOpener {
 public:
  using Clock = std::chrono::steady_clock;
  // The latest frame of the rendition that is read; see CommonTime.
  struct Position {
    std::atomic<Time> timestamp{0};
    std::atomic<Time> sinceBeginning{0};

    Time Of(Alignment alignment) const {
      return (alignment == Alignment::kBeginning ? sinceBeginning : timestamp)
          .load(std::memory_order_relaxed);
    }
  };
  struct Settings {
    MediaSettings media;
    MediaInfo read;  // of the one that is read
    std::shared_ptr<const Position> position;
    DecodeStep step = DecodeStep::kFull;
  };
  struct Opened {
    std::shared_ptr<MediaReader> reader;
    std::deque<MediaItem> items;  // audio from before the frame, and everything from it on
    Alignment alignment{};
    Time frameStart = 0;        // of the frame, on the reader's clock
    Clock::time_point arrival;  // of the frame
  };

  explicit RenditionOpener(const Settings& settings);
  ~RenditionOpener();
  RenditionOpener(const RenditionOpener&) = delete;
  RenditionOpener& operator=(const RenditionOpener&) = delete;

  // Ends its waits; any thread.
  void Cancel();
  bool WaitUntilReady(std::chrono::milliseconds limit) {
    return thread_.Wait(static_cast<std::uint32_t>(limit.count()));
  }
  // Once ready: what was opened; none when it failed, for the reason in failure().
  std::optional<Opened> Take();
  const std::string& failure() const { return state_->failure; }

 private:
  struct State {
    Settings settings;
    std::shared_ptr<MediaReader> reader;
    std::optional<Opened> opened{};
    std::string failure{};
  };

  static void Run(State& state);
  static void ReadUpToFrame(const Settings& settings, Opened& opened);
  static bool HasReached(const Position& position, Opened& opened, Time frameStart);

  std::shared_ptr<State> state_;
  const std::weak_ptr<MediaReader> reader_;
  os::Thread thread_;
};

}  // namespace host
