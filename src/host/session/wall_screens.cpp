#include "host/session/wall_screens.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace host {

WallScreens::WallScreens(const config::Wall& wall,
                         const std::vector<std::shared_ptr<AudioTrack>>& tracks,
                         const ScreenLinks& links, OutputObserver* observer) {
  const config::Canvas& canvas = wall.canvas;
  for (const config::Screen& screen : wall.screens) {
    ScreenOutput::Settings settings;
    settings.name = "screen:" + std::to_string(screen.display);
    const auto first =
        std::find_if(wall.screens.begin(), wall.screens.end(),
                     [&](const config::Screen& other) { return other.display == screen.display; });
    if (first - wall.screens.begin() != std::ssize(screens_)) {
      settings.name += " (" + std::to_string(screens_.size() + 1) + ")";
    }
    settings.program = links.program;
    settings.title = links.title;
    settings.screen = screen;
    settings.width = canvas.width;
    settings.height = canvas.height;
    settings.pixelAspect = canvas.pixelAspect();
    settings.takeInput = links.takeInput;
    screens_.push_back(std::make_unique<ScreenOutput>(std::move(settings), observer));
    if (screen.audio) {
      audible_.push_back(screens_.back().get());
    }
  }
  if (audible_.empty()) {
    return;
  }
  heard_ = std::make_unique<FollowTrack>(tracks, [this](const AVFrame& samples, Time start) {
    for (ScreenOutput* const screen : audible_) {
      screen->TakeAudio(samples, start);
    }
  });
  const auto selected =
      std::find_if(wall.channels.begin(), wall.channels.end(),
                   [](const config::Channel& channel) { return channel.selected; });
  if (selected != wall.channels.end()) {
    Listen(selected - wall.channels.begin(), 0);
  }
}

void WallScreens::Take(const ComPtr<IMediaSample>& frame, Time start) {
  for (const std::unique_ptr<ScreenOutput>& screen : screens_) {
    screen->Take(frame, start);
  }
}

void WallScreens::TakeAudio(std::size_t slot, const AVPacket& packet) {
  if (heard_) {
    heard_->Take(slot, packet);
  }
}

void WallScreens::Listen(std::optional<std::size_t> slot, Time from) {
  if (heard_) {
    heard_->Follow(slot, from);
  }
}

void WallScreens::Finish() {
  heard_.reset();
  for (const std::unique_ptr<ScreenOutput>& screen : screens_) {
    screen->Finish();
  }
}

std::vector<ScreenOutput::Status> WallScreens::status() const {
  std::vector<ScreenOutput::Status> all;
  for (const std::unique_ptr<ScreenOutput>& screen : screens_) {
    all.push_back(screen->status());
  }
  return all;
}

}  // namespace host
