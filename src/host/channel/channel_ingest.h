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
#include "host/channel/reopen_delay.h"
#include "host/channel/source/media_reader.h"
#include "host/channel/source_session.h"
#include "host/graph/feed_pin.h"

namespace host {

// Opens the channel's source, reads, decodes and converts, and fills the channel's queue in the
// order of time, what becomes of the source included. A source that fails is opened again after a
// growing delay. Run belongs to the reader's thread; Prepare and Cancel to the application's.
class ChannelIngest {
 public:
  struct Settings {
    std::string name;
    MediaReader::Settings reader;
    SourceSession::Settings session;
    Time span = kSecond;  // how far the reader runs ahead of the wall
    bool reopen = false;  // after a failure, or the end of a source that is no file
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
  bool cancelled() const;
  // False once cancelled.
  bool WaitBeforeReopening(std::chrono::milliseconds delay);
  // One opening of the source. How long to wait before the next one; none when there is none.
  std::optional<std::chrono::milliseconds> Attempt(MediaReader& reader);
  // Reads to the end; false when the wall stopped first.
  bool ReadToEnd(MediaReader& reader);
  bool ReadToEnd(MediaReader& reader, SourceSession& session);
  void Report(const SourceSession& session);
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
  Time latest_ = 0;      // when everything that was queued is shown
  Time reportedAt_ = 0;  // the timing of the source, on the wall's clock
};

}  // namespace host
