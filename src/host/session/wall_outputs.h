// The outputs of a wall: files and streams (OutputSet), displays with their audio (WallScreens),
// and all of them together (WallOutputs).
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/feed/audio_format.h"
#include "host/ffmpeg/mask.h"
#include "host/output/follow_track.h"
#include "host/output/output.h"
#include "host/output/output_set.h"
#include "host/output/screen/screen_output.h"
#include "log/i_log_perf.h"

namespace host {

VideoEncoder::Settings EncoderOf(const config::Canvas& canvas, const config::Output& output,
                                 bool live);

// The settings of a wall's OutputSet: one track for each channel whose audio is not switched off.
OutputSet::Settings OutputsOfWall(const config::Wall& wall, bool live);

// What the screens of a wall need from its program.
struct ScreenLinks {
  std::string program;  // path, see ScreenOutput
  std::string title;    // of the windows
  // See ScreenOutput.
  std::function<void(const std::string& screen, const ScreenInput& input)> takeInput;
};

// Owned by the wall's session. Take is the composition thread's, TakeAudio the channels' streaming
// threads', both return at once; the rest the application's.
class WallScreens {
 public:
  // tracks: of the channels, by slot. observer outlives it.
  WallScreens(const config::Wall& wall, const std::vector<std::shared_ptr<AudioTrack>>& tracks,
              const ScreenLinks& links, OutputObserver* observer);
  WallScreens(const WallScreens&) = delete;
  WallScreens& operator=(const WallScreens&) = delete;

  bool hasAudio() const { return heard_ != nullptr; }
  void Take(const ComPtr<IMediaSample>& frame, Time start);
  void TakeAudio(std::size_t slot, const AVPacket& packet);
  // Plays the audio of a slot, or none, from that time of the wall on.
  void Listen(std::optional<std::size_t> slot, Time from);
  // Closes all windows.
  void Finish();
  // In the order of the wall file.
  std::vector<ScreenOutput::Status> status() const;

 private:
  std::vector<std::unique_ptr<ScreenOutput>> screens_;
  std::vector<ScreenOutput*> audible_;
  std::unique_ptr<FollowTrack> heard_;  // null: no screen has audio; uses the screens
};

// Everything that the composed frames and the channels' audio of a wall go to: its outputs, the
// track that follows a channel, its screens, and takeAudio.
//
// Owned by the wall's session. Take is the composition thread's, TakeAudio the channels' streaming
// threads', both return at once; the rest the application's.
class WallOutputs {
 public:
  using TakePacket = std::function<void(std::size_t slot, const AVPacket& packet,
                                        const std::shared_ptr<AudioTrack>& track)>;
  struct Settings {
    bool live = false;
    PacketQueue::Limits queue;
    std::chrono::milliseconds finishLimit{5'000};  // of the outputs of a live wall
    ScreenLinks screen;
    TakePacket takeAudio;  // see WallSession; may be null
  };

  // observer and logger outlive it; the logger may be null.
  WallOutputs(const config::Wall& wall, const Settings& settings, OutputObserver* observer,
              qorp::log::ILogPerf* logger);
  WallOutputs(const WallOutputs&) = delete;
  WallOutputs& operator=(const WallOutputs&) = delete;

  OutputSet& set() { return *set_; }
  const OutputSet& set() const { return *set_; }
  std::vector<ScreenOutput::Status> screens() const { return screens_->status(); }
  // Whether anything uses the channels' audio.
  bool takesAudio() const { return !set_->empty() || screens_->hasAudio() || takeAudio_; }
  // Of a channel in that slot; null: its audio is switched off.
  const std::shared_ptr<AudioTrack>& track(std::size_t slot) const { return tracks_.at(slot); }

  // start: on the wall's clock. begin: of the first frame that is written.
  void Take(const ComPtr<IMediaSample>& frame, Time start, Time begin);
  // offset: see AudioSink.
  void TakeAudio(std::size_t slot, const AVPacket& packet, Time offset);
  // The channel whose audio the follow track carries from that time of the wall on, or none.
  void Follow(std::optional<std::size_t> slot, Time from);
  // The same for the audio of the screens.
  void Listen(std::optional<std::size_t> slot, Time from) { screens_->Listen(slot, from); }
  // The wall has ended; hurried: see OutputSet.
  void Finish(const std::function<bool()>& hurried);

 private:
  std::deque<ffmpeg::Secrets> secrets_;  // of the outputs
  const TakePacket takeAudio_;
  std::vector<std::shared_ptr<AudioTrack>> tracks_;  // of the slots, then the follow track
  std::unique_ptr<OutputSet> set_;
  std::unique_ptr<FollowTrack> follow_;  // null where the wall has none
  std::unique_ptr<WallScreens> screens_;
};

}  // namespace host
