// ItemPlacer: what one opening of a source gives, on its way into the channel's queue.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "host/channel/channel_queue.h"
#include "host/channel/item_merger.h"
#include "host/channel/live_timeline.h"
#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace host {

// Gives every frame, audio packet and level its time on the wall's clock and puts it into the
// queue. Live, the frames decide (LiveTimeline), each kind goes its own way, and audio that is too
// early or too late for its time is left out and counted. Rendered, the source's times are the
// wall's, and everything is put in the order of time first (ItemMerger).
//
// Owned and called by one reader on its thread.
class ItemPlacer {
 public:
  static constexpr Time kMergeWindow =
      3 * kSecond / 2;  // rendered: how far audio and video may lie apart

  struct Settings {
    SourceKind kind = SourceKind::kFile;
    bool hasVideo = false;
    bool hasAudio = false;
    Ratio frameRate{25, 1};     // of the canvas
    std::function<Time()> now;  // the wall's time; null: a rendered wall
  };
  // Audio packets that have no place in the outputs.
  struct LeftOut {
    std::uint64_t tooEarly = 0;
    std::uint64_t tooLate = 0;
    bool operator==(const LeftOut&) const = default;
  };

  ItemPlacer(Settings settings, ChannelQueue& queue);

  // Times of the source, in 100 ns. Each returns false once the queue is closed. jumped: the
  // source's timestamps jumped before it.
  bool Add(Time start, Time duration, bool jumped, ReadyFrame picture);
  bool Add(Time start, Time duration, AudioPacket packet);
  bool Add(Time start, Time duration, ReadyLevels levels);
  // What became of the audio at that time of the source; none where that has no place on the wall.
  std::optional<Time> PlaceOfAudio(Time start);
  bool AddEvent(Time placed, SourceEvent event) { return Put(placed, 0, std::move(event)); }
  // Nothing more comes from this source.
  bool Finish();

  // When everything that was handed on is shown; 0 before that.
  Time latest() const { return latest_; }
  // Something was handed on since the last call.
  bool TakeProgress();
  const LeftOut& leftOut() const { return leftOut_; }
  Time jitter() const { return timeline_.jitter(); }
  Time lead() const { return timeline_.lead(); }

 private:
  // The first frame places a live source: it may come in the middle of a GOP, and audio that was
  // waited for until then would make all that follows late.
  bool WaitsForFrame() const;
  Time Place(Time start, bool jumped);
  bool Put(Time start, Time duration, decltype(ChannelItem::content) content);
  bool HandOn(ChannelItem item);
  bool Flush();

  const Settings settings_;
  ChannelQueue& queue_;
  LiveTimeline timeline_;
  ItemMerger<ChannelItem> merger_;
  Time latest_ = 0;
  std::optional<Time> audioSinceFrame_;  // start of the first audio since the latest frame
  bool progress_ = false;
  LeftOut leftOut_;
};

}  // namespace host
