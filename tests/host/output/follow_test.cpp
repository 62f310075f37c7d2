#include <cmath>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

#include <gtest/gtest.h>

#include "host/output/follow_track.h"

namespace host {
namespace {

constexpr int kRate = 48'000;

ffmpeg::Frame Constant(float value, int samples) {
  ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = AV_SAMPLE_FMT_FLTP;
  frame->sample_rate = kRate;
  frame->nb_samples = samples;
  av_channel_layout_default(&frame->ch_layout, 2);
  av_frame_get_buffer(frame.get(), 0);
  for (int plane = 0; plane < 2; ++plane) {
    auto* const data = reinterpret_cast<float*>(frame->extended_data[plane]);
    std::fill(data, data + samples, value);
  }
  return frame;
}

// Whichever channel comes first, every sample is there once, in order, and no step clicks.
TEST(FollowMixerTest, JoinsChannelsWithoutAGapAndWithoutAClick) {
  for (const Time ahead : {Time{0}, 300 * kMillisecond, -300 * kMillisecond}) {
    FollowMixer mixer;
    mixer.Follow(0, 0);
    mixer.Follow(1, kSecond);
    mixer.Follow(0, kSecond + 3 * kMillisecond);  // an operator who changes his mind
    mixer.Follow(std::nullopt, 2 * kSecond);
    std::vector<float> heard;
    const auto sink = [&](const AVFrame& frame, Time start) {
      ASSERT_NEAR(static_cast<double>(start) * kRate / kSecond, static_cast<double>(heard.size()),
                  1.5);
      const auto* const samples = reinterpret_cast<const float*>(frame.extended_data[1]);
      heard.insert(heard.end(), samples, samples + frame.nb_samples);
    };
    constexpr Time kStep = 20 * kMillisecond;
    for (Time now = 0; now < 3 * kSecond; now += kStep) {
      mixer.Push(0, Constant(0.5F, 960), now, sink);
      if (now + ahead >= 0) {
        mixer.Push(1, Constant(-0.5F, 960), now + ahead, sink);
      }
    }
    ASSERT_NEAR(static_cast<double>(heard.size()), 2.0 * kRate, 3) << ahead;
    EXPECT_EQ(heard[kRate / 2], 0.5F);
    EXPECT_EQ(heard[kRate * 3 / 2], 0.5F);
    EXPECT_LT(heard[kRate + 72], 0) << "the other channel, for three milliseconds";
    for (std::size_t i = 1; i < heard.size(); ++i) {
      ASSERT_LT(std::abs(heard[i] - heard[i - 1]), 0.02) << ahead << " at " << i;
    }
  }
}

}  // namespace
}  // namespace host
