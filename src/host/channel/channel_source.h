// ChannelSource: one channel as a source filter of the graph.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/channel_ingest.h"
#include "host/channel/channel_presenter.h"
#include "host/channel/channel_queue.h"
#include "host/channel/channel_settings.h"
#include "host/feed/feed_pin.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// Offers five pins: frames, compressed audio, label text, audio alarm (levels) and video alarm.
// Active and with a channel, it has two threads: the reader (ChannelIngest) opens, reads and
// decodes into the buffers of the frame pin's own allocator; the streaming thread hands everything
// on when its time has come, and keeps the window filled when nothing comes (ChannelPresenter).
// Neither ever waits for another channel, and the wall waits for neither.
//
// A filter without a channel is a spare one: a channel may be assigned to it, taken away and
// assigned again while it is active. What a former source's reader still does is waited for later
// (EndRetired).
//
// Owned by its graph and by the wall. Pause starts the threads, on the application's thread. Stop
// ends the streaming thread and cancels the reader without waiting for it: what the wall gave until
// then can be written to its end first. EndReader, the next Pause or the destructor wait.
class ChannelSource final : public CBaseFilter {
 public:
  // What holds for every channel in this place.
  struct Place {
    config::Canvas canvas;
    bool isLive = false;
    WindowSize window{16, 16};  // at first
  };
  static ComPtr<ChannelSource> Create(ChannelSettings settings, ChannelObserver* observer);
  static ComPtr<ChannelSource> CreateSpare(const Place& place, ChannelObserver* observer);
  ChannelSource(const Place& place, std::optional<ChannelSettings> settings,
                ChannelObserver* observer);
  ~ChannelSource() override;

  int GetPinCount() override { return 5; }
  CBasePin* GetPin(int position) override;
  HRESULT Pause() override;
  HRESULT Stop() override;
  // The reader is to end; waits for nothing. Before Stop, to end many readers at once.
  void CancelReader();
  // After Stop: waits for the reader. False when it is stuck in its source beyond the deadline; its
  // thread is detached then, and touches nothing of this filter any more.
  bool EndReader(std::chrono::steady_clock::time_point deadline);

  // Application's thread: another channel, or the same one with a source that is opened again;
  // none: the place is spare. Waits for the streaming thread only.
  void Assign(std::optional<ChannelSettings> settings, const ChannelControls& controls);
  // What operators changed of the channel; takes effect soon. Any thread.
  void SetControls(const ChannelControls& controls);
  // Ends the readers of former channels; a stuck one is detached after some seconds. To be called
  // now and then. Returns how many were detached.
  int EndRetired();
  bool isAssigned() const { return settings_ != nullptr; }

  FeedPin& videoPin() { return video_; }
  FeedPin& audioPin() { return audio_; }
  FeedPin& textPin() { return text_; }
  FeedPin& audioAlarmPin() { return audioAlarm_; }
  FeedPin& videoAlarmPin() { return videoAlarm_; }

  // See FeedPin::ReportTo. Before the filter runs.
  void ReportFullBuffersTo(qorp::log::ILogPerf* logger, const std::string& name);

  // The wall's time, for this channel.
  ChannelQueue& queue() { return *queue_; }
  const std::string& name() const { return settings_->channel.name; }

  // Of a driven channel: hands on everything that is due by the wall's time, which is `now`.
  void DeliverUpTo(Time now);

  // See ChannelIngest; any thread.
  void WantSize(int width, int height) { wanted_->Set({width, height}); }
  // Another text for the label; any thread.
  void SetLabel(const std::string& text);

 private:
  // The wall's time; none of a rendered wall.
  std::optional<Time> Now() const;
  void Stream();
  void DeliverTick(Time tick);
  void Deliver(ChannelItem& item);
  void DeliverAudio(const AudioPacket& packet, Time start, Time duration);
  void DeliverLabel(Time time);
  void ApplyControls();
  void EndStreaming();
  void StartRun();
  // The reader is cancelled and waited for later.
  void EndRun();

  // A reader that is ending, with what it uses.
  struct Retired {
    std::shared_ptr<const ChannelSettings> settings;
    std::shared_ptr<ChannelQueue> queue;
    std::shared_ptr<ChannelIngest> ingest;
    std::unique_ptr<os::Thread> reader;
    std::chrono::steady_clock::time_point deadline;
  };

  std::shared_ptr<const ChannelSettings> settings_;  // null: a spare one
  const std::shared_ptr<WantedSize> wanted_;
  CCritSec lock_;
  FeedPin video_;
  FeedPin audio_;
  FeedPin text_;
  FeedPin audioAlarm_;
  FeedPin videoAlarm_;

  ChannelObserver* const observer_;
  std::shared_ptr<ChannelQueue> queue_;
  std::shared_ptr<ChannelIngest> ingest_;      // of the latest run, shared with its thread
  std::optional<ChannelPresenter> presenter_;  // of settings_
  ChannelPresenter::Handover handover_;        // while there is no channel
  std::vector<Retired> retired_;               // application's thread
  std::unique_ptr<os::Thread> reader_;         // application's thread
  std::unique_ptr<os::Thread> streaming_;      // application's thread

  os::Mutex labelLock_;
  std::string label_ GUARDED_BY(labelLock_);
  bool labelChanged_ GUARDED_BY(labelLock_) = true;
  std::optional<ChannelControls> controls_ GUARDED_BY(labelLock_);  // not applied yet
  config::Mute mute_ = config::Mute::kOff;                          // streaming thread only
  ffmpeg::Packet silence_;  // in the form of audioFormat_; streaming thread only
  Time nextLabel_ = 0;      // not before; streaming thread only
  std::shared_ptr<const AudioFormat> audioFormat_;  // announced last; streaming thread only
};

}  // namespace host
