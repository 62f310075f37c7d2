// ChannelIngest: the reading side of one channel.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/channel/audio_format.h"
#include "host/channel/channel_queue.h"
#include "host/channel/item_merger.h"
#include "host/channel/level_meter.h"
#include "host/channel/media_reader.h"
#include "host/channel/picture_converter.h"
#include "host/graph/feed_pin.h"
#include "log/i_log_perf.h"

namespace host {

// Hears what becomes of a channel; called by the reader's thread of that channel.
class ChannelObserver {
 public:
  virtual ~ChannelObserver() = default;
  virtual void ChannelOpened(const std::string& channel, const MediaInfo& info) = 0;
  virtual void ChannelEnded(const std::string& channel) = 0;
  // reason: one sentence; retryIn: until the source is opened again, none when it is not.
  virtual void ChannelFailed(const std::string& channel, const std::string& reason,
                             std::optional<std::chrono::milliseconds> retryIn) = 0;
  // What becomes of the channel's sound on its way to the outputs, as a sentence.
  virtual void ChannelSoundChanged(const std::string& /*channel*/, const std::string& /*what*/) {}
};

// Opens the channel's source, reads, decodes and converts, and fills the channel's queue in the
// order of time. A source that fails is opened again after a growing delay. Run belongs to the
// reader's thread; Prepare and Cancel to the application's.
class ChannelIngest {
 public:
  struct Settings {
    std::string name;
    MediaReader::Settings reader;
    PictureConverter::Settings picture;
    LevelMeter::Settings meter;
    Time span = kSecond;             // how far the reader runs ahead
    Time mergeWindow = kSecond / 2;  // pictures and sounds are put in order within this time
    bool reopen = false;             // after a failure or an end
    // The time on the wall at which a source starts that is opened now; null: at 0.
    std::function<Time()> startTime;
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

  // Whether the source that is open has sound; streaming thread.
  bool hasAudio() const { return hasAudio_.load(std::memory_order_relaxed); }

 private:
  class Pass;

  bool cancelled() const;
  // False once cancelled.
  bool WaitBeforeReopening(std::chrono::milliseconds delay);
  // Reads one opening of the source to its end; false when the wall stopped first.
  bool ReadToEnd(MediaReader& reader);

  const Settings settings_;
  FeedPin& videoPin_;
  ChannelQueue& queue_;
  ChannelObserver* const observer_;

  mutable std::mutex lock_;
  std::condition_variable cancelling_;
  bool cancelled_ = false;               // guarded by lock_
  std::shared_ptr<MediaReader> reader_;  // guarded by lock_; what Cancel has to cancel
  std::atomic<bool> hasAudio_{false};
};

}  // namespace host
