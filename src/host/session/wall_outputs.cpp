#include "host/session/wall_outputs.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "host/config/url.h"
#include "host/ffmpeg/mask.h"

namespace host {

namespace {

// The first packet of a live output leaves within a second of the wall's start.
constexpr Time kMaxEncoderDelay = 800 * kMillisecond;
// Of outputs that are watched live: a wall with the default delay is seen within 1.25 s.
constexpr Time kMaxNetworkDelay = 80 * kMillisecond;
// Of constant quality over a network, where no bit rate is given: 10 Mbit/s for 1080p at 25 frames
// per second.
constexpr double kMaxBitsPerPixel = 0.2;
// Of a rendered wall, whose sources are read as fast as possible: all are known long before.
constexpr Time kRenderedFormatLimit = 5 * kSecond;

}  // namespace

namespace {

bool IsHls(const config::Output& output) {
  return output.format == "hls" || output.url.ends_with(".m3u8");
}

bool IsWatchedLive(const config::Output& output) {
  return !config::LocalPath(output.url) && !IsHls(output);
}

}  // namespace

VideoEncoder::Settings EncoderOf(const config::Canvas& canvas, const config::Output& output,
                                 bool live) {
  VideoEncoder::Settings encoder;
  static_cast<config::Encoding&>(encoder) = output;
  encoder.width = canvas.width;
  encoder.height = canvas.height;
  encoder.frameRate = canvas.frameRate;
  encoder.pixelAspect = canvas.pixelAspect();
  if (live) {
    encoder.maxDelay = IsWatchedLive(output) ? kMaxNetworkDelay : kMaxEncoderDelay;
  }
  return encoder;
}

namespace {

// One encoder for a network and a file costs half of two: the file gets the limits of the network.
void ShareEncoders(std::vector<OutputSet::Item>& items) {
  for (OutputSet::Item& item : items) {
    for (const OutputSet::Item& other : items) {
      VideoEncoder::Settings shared = item.encoder;
      shared.maxRate = shared.maxRate == 0 ? other.encoder.maxRate : shared.maxRate;
      shared.maxDelay = std::min(shared.maxDelay, other.encoder.maxDelay);
      if (shared == other.encoder) {
        item.encoder = shared;
      }
    }
  }
}

OutputSet::Item ItemOf(const config::Canvas& canvas, const config::Output& output, bool live) {
  OutputSet::Item item;
  item.name = ffmpeg::MaskUrl(output.url);
  item.encoder = EncoderOf(canvas, output, live);
  if (live && output.bitRate == 0 && (IsWatchedLive(output) || IsHls(output))) {
    item.encoder.maxRate = static_cast<std::int64_t>(canvas.width * canvas.height *
                                                     canvas.frameRate.value() * kMaxBitsPerPixel);
  }
  item.muxer.url = output.url;
  item.muxer.format = output.format;
  item.muxer.options = output.options;
  item.audio = output.audio;
  using Existing = RecordingFiles::Existing;
  // A rendering has to write the file of that name; a running wall records under any free name.
  item.existing = output.overwrite ? Existing::kReplaced
                  : live           ? Existing::kKept
                                   : Existing::kRefused;
  item.segments = {output.segment, output.segmentSize};
  item.formatLimit = live ? output.audioWait : kRenderedFormatLimit;
  return item;
}

}  // namespace

OutputSet::Settings OutputsOfWall(const config::Wall& wall, bool live) {
  OutputSet::Settings settings;
  settings.live = live;
  settings.frameRate = wall.canvas.frameRate;
  for (const config::Output& output : wall.outputs) {
    settings.outputs.push_back(ItemOf(wall.canvas, output, live));
    // What distinguished them may be masked.
    const auto isNamed = [&](const OutputSet::Item& item) {
      return item.name == settings.outputs.back().name;
    };
    if (std::any_of(settings.outputs.begin(), std::prev(settings.outputs.end()), isNamed)) {
      settings.outputs.back().name += " (" + std::to_string(settings.outputs.size()) + ")";
    }
  }
  ShareEncoders(settings.outputs);
  for (const config::Channel& channel : wall.channels) {
    const config::AudioOptions& audio = channel.options.audio;
    settings.tracks.push_back({channel.name, audio.language, channel.selected,
                               audio.enabled ? std::make_shared<AudioTrack>() : nullptr});
  }
  for (int i = 0; i < wall.spare; ++i) {
    settings.tracks.push_back(
        {"Spare " + std::to_string(i + 1), "", false, std::make_shared<AudioTrack>()});
  }
  return settings;
}

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

WallOutputs::WallOutputs(const config::Wall& wall, const Settings& settings,
                         OutputObserver* observer, qorp::log::ILogPerf* logger)
    : takeAudio_(settings.takeAudio) {
  for (const config::Output& output : wall.outputs) {
    secrets_.emplace_back(output.url, output.options);
  }
  OutputSet::Settings outputs = OutputsOfWall(wall, settings.live);
  outputs.queue = settings.queue;
  outputs.finishLimit = settings.finishLimit;
  for (const OutputSession::Track& channel : outputs.tracks) {
    tracks_.push_back(channel.audio);
  }
  config::Wall shown = wall;
  shown.screens.resize(settings.live ? shown.screens.size() : 0);
  screens_ = std::make_unique<WallScreens>(shown, tracks_, settings.screen, observer);
  if (wall.follow && !outputs.outputs.empty()) {
    const std::size_t track = outputs.tracks.size();
    follow_ = std::make_unique<FollowTrack>(
        tracks_, [this, track](const AVPacket& packet) { set_->TakeAudio(track, packet, 0); });
    outputs.tracks.push_back({"Follow", "", false, follow_->audio()});
    tracks_.push_back(follow_->audio());
  }
  set_ = std::make_unique<OutputSet>(outputs, observer, logger);
}

void WallOutputs::Take(const ComPtr<IMediaSample>& frame, Time start, Time begin) {
  set_->Take(frame, start - begin);
  screens_->Take(frame, start);
}

void WallOutputs::TakeAudio(std::size_t slot, const AVPacket& packet, Time offset) {
  set_->TakeAudio(slot, packet, offset);
  screens_->TakeAudio(slot, packet);
  if (follow_) {
    follow_->Take(slot, packet);
  }
  if (takeAudio_) {
    takeAudio_(slot, packet, tracks_[slot]);
  }
}

void WallOutputs::Follow(std::optional<std::size_t> slot, Time from) {
  if (follow_) {
    follow_->Follow(slot, from);
  }
}

void WallOutputs::Finish(const std::function<bool()>& hurried) {
  follow_.reset();
  screens_->Finish();
  set_->Finish(hurried);
}

}  // namespace host
