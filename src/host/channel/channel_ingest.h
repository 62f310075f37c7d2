// ChannelIngest: the reading side of one channel.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/channel/channel_observer.h"
#include "host/channel/channel_queue.h"
#include "host/channel/item_merger.h"
#include "host/channel/live_timeline.h"
#include "host/channel/picture/picture_converter.h"
#include "host/channel/picture/picture_meter.h"
#include "host/channel/reopen_delay.h"
#include "host/channel/sound/audio_format.h"
#include "host/channel/sound/level_meter.h"
#include "host/channel/source/media_reader.h"
#include "host/graph/feed_pin.h"
#include "log/i_log_perf.h"

namespace host {

// Opens the channel's source, reads, decodes and converts, and fills the channel's queue in the
// order of time, what becomes of the source included. A source that fails is opened again after a
// growing delay. Run belongs to the reader's thread; Prepare and Cancel to the application's.
class ChannelIngest {
 public:
  struct Settings {
    std::string name;
    MediaReader::Settings reader;
    PictureConverter::Settings picture;
    LevelMeter::Settings meter;
    PictureMeter::Settings pictureMeter;
    Time span = kSecond;             // how far the reader runs ahead
    Time mergeWindow = kSecond / 2;  // pictures and sounds are put in order within this time
    bool reopen = false;             // after a failure, or the end of a source that is no file
    // The wall's time, which live sources are fitted to; null: sources start at 0.
    std::function<Time()> now;
    // Counts pictures and discontinuities; not owned, may be null.
    qorp::log::ILogPerf* logger = nullptr;
    // The channel's track in the outputs; null: compressed sound does not leave the ingest.
    std::shared_ptr<AudioTrack> audioTrack;
  };

  ChannelIngest(Settings settings, FeedPin& videoPin, ChannelQueue& queue,
                ChannelObserver* observer);

  // Before a new Run.
  void Prepare();
  // Until the source has ended for good, or Cancel. Leaves the queue's horizon at forever.
  void Run();
  // Ends Run soon, whatever it waits for but a buffer of the picture pin.
  void Cancel();

 private:
  class Pass;

  bool cancelled() const;
  // False once cancelled.
  bool WaitBeforeReopening(std::chrono::milliseconds delay);
  // One opening of the source. How long to wait before the next one; none when there is none.
  std::optional<std::chrono::milliseconds> Attempt(MediaReader& reader);
  // Reads to the end; false when the wall stopped first.
  bool ReadToEnd(MediaReader& reader);
  // False once the queue is closed.
  bool Announce(SourceNews news);

  const Settings settings_;
  FeedPin& videoPin_;
  ChannelQueue& queue_;
  ChannelObserver* const observer_;

  mutable std::mutex lock_;
  std::condition_variable cancelling_;
  bool cancelled_ = false;               // guarded by lock_
  std::shared_ptr<MediaReader> reader_;  // guarded by lock_; what Cancel has to cancel

  // The reader's thread only.
  ReopenDelay delay_;
  Time latest_ = 0;  // wall's time of the latest item
};

}  // namespace host
