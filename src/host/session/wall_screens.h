// WallScreens: the outputs of a wall that are displays, and what is heard at them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/feed/audio_format.h"
#include "host/output/follow_track.h"
#include "host/output/output.h"
#include "host/output/screen/screen_output.h"

namespace host {

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
  // From that time of the wall on.
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

}  // namespace host
