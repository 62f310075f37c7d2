// Sessions of an output, packet by packet.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/output/output_session.h"
#include "host/output/video_encoder.h"
#include "tests/support/frames.h"
#include "tests/support/temporary_folder.h"

namespace host {

inline VideoEncoder::Settings SmallVideo() {
  VideoEncoder::Settings settings;
  settings.width = 96;
  settings.height = 64;
  settings.preset = "ultrafast";
  return settings;
}

// 25 frames per second without B-frames, every fifth one a keyframe, and an output that takes them.
// There are two channels: one whose format is known, and one that is absent.
class OutputSessionTest : public testing::Test {
 protected:
  explicit OutputSessionTest(const std::string& file, Time keyframes = kSecond / 5)
      : encoder_(Video(keyframes)) {
    settings_.muxer.url = (folder_ / file).string();
    settings_.muxer.survivesKill = true;
    settings_.formatLimit = 700 * kMillisecond;
    settings_.waitForSources = true;
    settings_.sinceStart = [this] { return sinceStart_; };
    for (const char* const name : {"here", "away"}) {
      settings_.tracks.push_back({name, "", false, std::make_shared<AudioTrack>()});
    }
    settings_.tracks[0].audio->Fix(AacFormat(48'000, 2, ""));
  }
  static VideoEncoder::Settings Video(Time keyframes) {
    VideoEncoder::Settings settings = SmallVideo();
    settings.lowDelay = true;
    settings.keyFrameInterval = keyframes;
    return settings;
  }
  OutputSession::Owner Owner() {
    return {nullptr, [](const std::string&) {},
            [this](const OutputSession&, const std::string&) { ++opened_; }};
  }
  void TakeFrame(OutputSession& session, int number) {
    const support::Yv12Buffer picture(96, 64);
    encoder_.Encode(picture.bytes(), Time{number} * 400'000, [&](ffmpeg::Packet packet) {
      session.Take({TrackPacket::kVideo, std::move(packet), 0});
    });
  }

  const TemporaryFolder folder_;
  VideoEncoder encoder_;
  const ffmpeg::Parameters video_ = encoder_.parameters();
  OutputSession::Settings settings_;
  Time sinceStart_ = 0;
  int opened_ = 0;
};

}  // namespace host
