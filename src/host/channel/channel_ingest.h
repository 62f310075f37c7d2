// ChannelIngest: the reading side of one channel.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/channel/channel_observer.h"
#include "host/channel/channel_queue.h"
#include "host/channel/channel_settings.h"
#include "host/channel/decode_policy.h"
#include "host/channel/rendition/rendition_reader.h"
#include "host/channel/rendition/rendition_set.h"
#include "host/channel/source_session.h"
#include "host/feed/feed_pin.h"
#include "platform/os/mutex.h"
#include "util/reopen_delay.h"

namespace host {

// Opens the channel's source, reads, decodes and converts, and fills the channel's queue in the
// order of time, what becomes of the source included. A source that fails is opened again after a
// growing delay, and its connection is closed before the delay. One run each.
//
// A call into the source may be stuck where nothing ends it: in the resolution of a name, in a file
// on a dead mount. Such a run is abandoned: from then on it touches nothing but this object, which
// its thread has to share, and it ends as soon as the call returns.
//
// Run belongs to the reader's thread; Cancel and EndBy to the application's.
class ChannelIngest {
 public:
  // wanted: the size in which the channel is shown. Pin, queue and observer outlive Run, or the
  // abandonment of it.
  ChannelIngest(std::shared_ptr<const ChannelSettings> settings, std::shared_ptr<WantedSize> wanted,
                FeedPin& videoPin, ChannelQueue& queue, ChannelObserver* observer);

  // Until the source has ended finally, or Cancel. Leaves the queue's horizon at forever.
  void Run();
  // Ends Run soon, whatever it waits for but a buffer of the frame pin and a stuck source.
  void Cancel();
  // How much is decoded from now on. Any thread.
  void SetDecode(config::Decode decode) { decode_ = decode; }
  // The channel is shown in that size from now on (canvas pixels, at least 1): of a source with
  // several renditions the right one is read. Any thread.
  void WantSize(int width, int height) { wanted_->Set({width, height}); }
  // After Cancel, and once the pin gives no buffers: true when Run has ended. False when it has
  // been abandoned because it was inside a call of the source at the deadline.
  bool EndBy(std::chrono::steady_clock::time_point deadline);

 private:
  // Thrown through an abandoned run. No std::exception: only Run handles it.
  struct Abandoned {};

  // Runs a call that may be stuck in the source. Throws Abandoned when the run was abandoned
  // meanwhile, and otherwise what the call throws.
  template <typename Call>
  auto InSource(const Call& call);
  void EnterSource();
  void LeaveSource();
  void ReadSource();
  // Opens the source, reads it to its end and closes it; see Attempt.
  std::optional<std::chrono::milliseconds> RunOnce();
  bool cancelled() const;
  // False once cancelled.
  bool WaitBeforeReopening(std::chrono::milliseconds delay);
  // One opening of the source. How long to wait before the next one; none when there is none.
  std::optional<std::chrono::milliseconds> Attempt(RenditionReader& reader);
  // Reads to the end; false when the wall stopped first.
  bool ReadToEnd(RenditionReader& reader);
  bool ReadToEnd(RenditionReader& reader, SourceSession& session);
  void Report(const SourceSession& session, const RenditionReader& reader);
  // The rendition may be another one now. False once the queue is closed.
  bool NoteChange(RenditionReader& reader);
  // How much is decoded; once when the source is opened, and about once a second. False once the
  // queue is closed.
  bool BeginDecoding(RenditionReader& reader);
  bool FollowLoad(RenditionReader& reader, SourceSession& session);
  bool Decide(RenditionReader& reader, Time now, DecodePolicy::Load load);
  void FollowWindow(const VideoInfo& video, Time now);
  bool FillsCanvas(const config::Window& window) const;
  // False once the queue is closed.
  bool Announce(SourceEvent event);
  // That the service of the source has another name.
  bool AnnounceName(const RenditionReader& reader);

  const std::shared_ptr<const ChannelSettings> shared_;
  const ChannelSettings& settings_;
  const std::shared_ptr<WantedSize> wanted_;
  FeedPin& videoPin_;
  ChannelQueue& queue_;
  ChannelObserver* const observer_;

  mutable os::Mutex lock_;
  os::ConditionVariable cancelling_;
  os::ConditionVariable left_;  // the source, or Run
  bool cancelled_ GUARDED_BY(lock_) = false;
  bool inSource_ GUARDED_BY(lock_) = false;  // a call of the source is being made
  bool ended_ GUARDED_BY(lock_) = false;     // Run has
  bool abandoned_ GUARDED_BY(lock_) = false;
  std::shared_ptr<RenditionReader> reader_ GUARDED_BY(lock_);  // what Cancel has to cancel

  std::atomic<config::Decode> decode_;

  // The reader's thread only.
  RenditionSet renditions_;
  qorp::ReopenDelay delay_;
  DecodePolicy policy_;
  WindowSize decodedFor_;
  std::chrono::nanoseconds waitedForRoom_{};
  std::chrono::steady_clock::time_point observedAt_;
  Time lead_ = 0;        // of the latest frame, when the load was looked at
  Time latest_ = 0;      // when everything that was queued is shown
  Time reportedAt_ = 0;  // the timing of the source, on the wall's clock
  // Of former openings.
  SourceCounts formerCounts_;
  std::uint64_t formerJumps_ = 0;
  AudioAbsence audioAbsence_{};  // of the rendition that is read
};

}  // namespace host
