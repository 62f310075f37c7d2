#include "host/channel/source/media_decoder.h"

#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/channel/source/media_reader.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

TEST(MediaDecoder, GoesOnThroughAWrapAndAJumpOfTheTimeStamps) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.videoOptions = {{"bf", "0"}};
  // The 33 bits of a transport stream end at 95443.7 s.
  const auto at = [&](const char* offset) {
    recipe.containerOptions = {{"output_ts_offset", offset}};
    return ReadWholeFile(Write(recipe, folder / "wrap.ts"));
  };
  // A sender that starts again: timestamps of two hours earlier, without a pause.
  WriteWholeFile(folder / "jump.ts", at("9000") + at("1800"));
  at("95443.2");
  const Content wrapped = ReadFile(folder / "wrap.ts");
  ASSERT_EQ(wrapped.pictures.size(), 25U);
  ExpectSteady(wrapped.pictures, 200);
  const Content jumped = ReadFile(folder / "jump.ts");
  ASSERT_EQ(jumped.pictures.size(), 50U);
  ExpectSteady(jumped.pictures, 300'000);
  for (std::size_t i = 0; i < jumped.pictures.size(); ++i) {
    EXPECT_EQ(jumped.pictures[i].discontinuity, i == 25) << i;
  }
  for (std::size_t i = 1; i < jumped.packets.size(); ++i) {
    EXPECT_NEAR(jumped.packets[i].start - jumped.packets[i - 1].start, 213'333, 300'000);
  }
}

// Audio and picture are as far apart after damage as they were before it.
TEST(MediaDecoder, DamageDoesNotTearAudioFromPicture) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 16 * kSecond;
  const std::string whole = ReadWholeFile(Write(recipe, folder / "whole.ts"));
  const auto distanceAtTheEnd = [&](const std::string& name) -> std::optional<Time> {
    try {
      const Content content = ReadFile(folder / name);
      return content.pictures.back().start - content.packets.back().start;
    } catch (const MediaError&) {
      return {};  // beyond repair: a channel opens it again
    }
  };
  const std::optional<Time> undamaged = distanceAtTheEnd("whole.ts");
  ASSERT_TRUE(undamaged.has_value());
  int read = 0;
  constexpr unsigned kTries = 30;
  for (unsigned seed = 0; seed < kTries; ++seed) {
    // Three bits in a fifth of the datagrams, in a quarter of the clip.
    constexpr std::size_t kDatagram = 1316;
    std::mt19937 random(seed);
    std::string damaged = whole;
    for (std::size_t at = whole.size() / 4; at < whole.size() / 2; at += kDatagram) {
      if (random() % 5 == 0) {
        for (int i = 0; i < 3; ++i) {
          damaged[at + random() % kDatagram] ^= static_cast<char>(1U << random() % 8);
        }
      }
    }
    WriteWholeFile(folder / "damaged.ts", damaged);
    if (const std::optional<Time> distance = distanceAtTheEnd("damaged.ts")) {
      ++read;
      EXPECT_NEAR(*distance, *undamaged, kSecond / 10) << "seed " << seed;
    }
  }
  EXPECT_GE(read, static_cast<int>(kTries) * 3 / 4);
}

// H.264 says it in an SEI message before a keyframe.
TEST(MediaDecoder, GivesEachFrameItsOwnOrientation) {
  constexpr char kQuarterTurn[] = "\0\0\0\x01\x06\x2F\x03\x08\0\x09\x80";
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.audio.clear();
  const std::string stream = ReadWholeFile(Write(recipe, folder / "a.h264"));
  WriteWholeFile(folder / "b.h264",
                 stream + std::string(kQuarterTurn, sizeof kQuarterTurn - 1) + stream + stream);
  const Content content = ReadFile(folder / "b.h264");
  ASSERT_EQ(content.pictures.size(), 75U);
  for (std::size_t i = 0; i < 75; ++i) {
    EXPECT_EQ(content.pictures[i].orientation.rotation, i / 25 == 1 ? 270 : 0) << i;
  }
}

// The luma of the rows that the picture has.
std::string LumaOf(const DecodedFrame& picture) {
  const AVFrame& frame = *picture.frame;
  std::string luma;
  for (int y = 0; y < frame.height; ++y) {
    luma.append(reinterpret_cast<const char*>(frame.data[0] + y * frame.linesize[0]),
                static_cast<std::size_t>(frame.width));
  }
  return luma;
}

TEST(MediaDecoder, BeginsInTheMiddleOfAGopWithTheNextKeyframe) {
  const TemporaryFolder folder;
  const std::vector<std::pair<const char*, decltype(ClipRecipe::videoOptions)>> codecs{
      {"libx265",
       {{"x265-params", "keyint=40:open-gop=1:pools=none:frame-threads=1:wpp=0:log-level=0"}}},
      {"mpeg4", {{"g", "40"}}},
      {"mpeg2video", {{"g", "40"}, {"bf", "2"}}},
      {"libx264", {{"g", "40"}, {"x264-params", "open-gop=1"}}},
      {"libx264", {{"g", "40"}, {"x264-params", "intra-refresh=1:bframes=0"}}}};
  for (const auto& [codec, options] : codecs) {
    ClipRecipe recipe = SmallClip();
    recipe.audio.clear();
    recipe.videoCodec = codec;
    recipe.videoOptions = options;
    recipe.length = 5 * kSecond;
    const std::string stream = ReadWholeFile(Write(recipe, folder / "whole.ts"));
    // After its tables, from the second fifth of the stream on.
    WriteWholeFile(folder / "cut.ts",
                   stream.substr(0, 188 * 3) + stream.substr(stream.size() / 5 / 188 * 188));
    const std::vector<DecodedFrame> all = ReadFile(folder / "whole.ts").pictures;
    const std::vector<DecodedFrame> shown = ReadFile(folder / "cut.ts").pictures;
    ASSERT_GE(shown.size(), 40U) << codec << " " << shown.size();
    ASSERT_LT(shown.size(), all.size() * 4 / 5) << codec;
    for (std::size_t n = 1; n <= shown.size(); ++n) {
      ASSERT_TRUE(LumaOf(shown[shown.size() - n]) == LumaOf(all[all.size() - n]))
          << codec << ", picture " << shown.size() - n << " of " << shown.size();
    }
  }
}

TEST(KeyframeGate, OpensForAStreamThatHasNoKeyframesAfterSomeTime) {
  KeyframeGate gate(AV_CODEC_ID_HEVC);
  const ffmpeg::Packet packet = ffmpeg::MakePacket();
  const ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->key_frame = 0;
  for (packet->dts = 0; packet->dts < KeyframeGate::kMaxWait; packet->dts += kSecond / 25) {
    gate.Packet(*packet);
    ASSERT_TRUE(gate.waits());
    ASSERT_FALSE(gate.Lets(*frame));
  }
  gate.Packet(*packet);
  EXPECT_FALSE(gate.waits());
  EXPECT_TRUE(gate.Lets(*frame));
  gate.Close();
  EXPECT_FALSE(gate.Lets(*frame));
  for (int i = 0; i < KeyframeGate::kMaxPackets; ++i) {
    packet->dts = i % 2 == 0 ? 0 : INT64_MIN;
    gate.Packet(*packet);
  }
  EXPECT_TRUE(gate.Lets(*frame));
}

}  // namespace
}  // namespace host
