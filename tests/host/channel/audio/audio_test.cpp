#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

#include "host/channel/audio/audio_passthrough.h"
#include "host/channel/audio/level_meter.h"
#include "host/ffmpeg/handles.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using Readings = std::vector<LevelMeter::Reading>;
using testing::HasSubstr;

void Push(LevelMeter& meter, const std::vector<std::vector<float>>& channels, int rate, Time start,
          Readings& readings) {
  std::vector<const float*> planes;
  for (const auto& channel : channels) {
    planes.push_back(channel.data());
  }
  meter.Push(planes, static_cast<int>(channels[0].size()), rate, start,
             [&](const LevelMeter::Reading& reading) { readings.push_back(reading); });
}

// Start and the levels of the first two channels.
std::vector<std::array<Time, 3>> Summary(const Readings& readings) {
  std::vector<std::array<Time, 3>> summary;
  for (const LevelMeter::Reading& reading : readings) {
    summary.push_back({reading.start, reading.levels.levels[0], reading.levels.levels[1]});
  }
  return summary;
}

// One channel that is silent except for one sample.
std::vector<float> Impulse(std::size_t samples, std::size_t at, float value) {
  std::vector<float> channel(samples, 0.0F);
  channel[at] = value;
  return channel;
}

TEST(LevelMeter, ShowsThePeakOfEachChannelOverTheTimeOfAFrame) {
  LevelMeter meter({});
  Readings readings;
  Push(meter, {Impulse(3840, 1919, -0.5F), Impulse(3840, 1920, 0.25F)}, 48000, 0, readings);
  ASSERT_EQ(readings.size(), 2U);
  EXPECT_EQ(readings[0].duration, 400'000);
  EXPECT_EQ(readings[0].levels.channelCount, 2);
  EXPECT_EQ(readings[1].levels.peaks[0], 500);
  EXPECT_EQ(Summary(readings), (std::vector<std::array<Time, 3>>{{0, 500, 0}, {400'000, 0, 250}}));
}

TEST(LevelMeter, DoesNotDependOnHowTheSamplesAreCut) {
  std::vector<float> audio(44100);
  for (std::size_t i = 0; i < audio.size(); ++i) {
    audio[i] = static_cast<float>(std::sin(0.05 * static_cast<double>(i)) * static_cast<double>(i) /
                                  44100.0);
  }
  const auto measure = [&](std::size_t piece) {
    LevelMeter::Settings settings;
    settings.frameRate = {30000, 1001};
    LevelMeter meter(settings);
    Readings readings;
    for (std::size_t at = 0; at < audio.size(); at += piece) {
      const std::size_t end = std::min(at + piece, audio.size());
      // Rounded down, as a decoder's timestamps are.
      Push(meter, {{audio.begin() + static_cast<long>(at), audio.begin() + static_cast<long>(end)}},
           44100, static_cast<Time>(at) * kSecond / 44100, readings);
    }
    meter.Finish([&](const LevelMeter::Reading& reading) { readings.push_back(reading); });
    return readings;
  };
  const Readings whole = measure(audio.size());
  EXPECT_EQ(whole.size(), 30U);
  for (const std::size_t piece : {std::size_t{1024}, std::size_t{441}, std::size_t{7}}) {
    const Readings cut = measure(piece);
    ASSERT_EQ(cut.size(), whole.size()) << piece;
    for (std::size_t i = 0; i < cut.size(); ++i) {
      EXPECT_EQ(cut[i].start, whole[i].start);
      // A sample on the border may be counted to either side by the rounding of a timestamp.
      EXPECT_NEAR(cut[i].levels.levels[0], whole[i].levels.levels[0], 2) << piece << " " << i;
    }
  }
}

TEST(LevelMeter, HoldsAPeakAndThenLetsItFall) {
  LevelMeter::Settings settings;
  settings.peakHold = kSecond;
  settings.peakFall = 20.0;
  LevelMeter meter(settings);
  Readings readings;
  Push(meter, {Impulse(3 * 48000, 10, 1.0F)}, 48000, 0, readings);
  ASSERT_EQ(readings.size(), 75U);
  EXPECT_EQ(readings[25].levels.peaks[0], 1000);
  EXPECT_LT(readings[26].levels.peaks[0], 1000);
  EXPECT_NEAR(readings[50].levels.peaks[0], 100, 5);  // a second later, 20 dB less
  // A louder audio is the new peak at once.
  Push(meter, {Impulse(1920, 0, 0.8F)}, 48000, 3 * kSecond, readings);
  EXPECT_EQ(readings.back().levels.peaks[0], 800);
}

TEST(LevelMeter, StartsAgainWhenTheChannelCountChangesAndMeasuresTenAtMost) {
  LevelMeter meter({});
  Readings readings;
  Push(meter, {Impulse(960, 0, 0.9F)}, 48000, 0, readings);
  EXPECT_TRUE(readings.empty());
  Push(meter, std::vector<std::vector<float>>(16, Impulse(960, 0, 0.1F)), 48000, 200'000, readings);
  ASSERT_EQ(readings.size(), 2U);
  EXPECT_EQ(readings[0].levels.channelCount, 1);
  EXPECT_EQ(readings[0].levels.levels[0], 900);
  EXPECT_EQ(readings[1].levels.channelCount, 10);
  EXPECT_EQ(readings[1].levels.peaks[0], 100);
}

TEST(LevelMeter, SurvivesBrokenSamplesGapsAndStepsBack) {
  LevelMeter meter({});
  Readings readings;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float infinity = std::numeric_limits<float>::infinity();
  Push(meter, {{nan, 0.5F, nan}, {infinity, 0.0F, 0.0F}}, 48000, 0, readings);
  Push(meter, {{0.25F}, {0.25F}}, 48000, 10 * kSecond, readings);
  Push(meter, {{0.75F}, {0.0F}}, 48000, 9 * kSecond, readings);
  meter.Finish([&](const LevelMeter::Reading& reading) { readings.push_back(reading); });
  EXPECT_EQ(Summary(readings),
            (std::vector<std::array<Time, 3>>{{0, 500, 1'000'000}, {10 * kSecond, 750, 250}}));
}

TEST(SamplePlanes, KeepTheChannelsApart) {
  const ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = AV_SAMPLE_FMT_S16;
  frame->nb_samples = 2;
  frame->sample_rate = 48000;
  av_channel_layout_default(&frame->ch_layout, 2);
  ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  std::ranges::copy(std::array<std::int16_t, 4>{-32768, 16384, 8192, 0},
                    reinterpret_cast<std::int16_t*>(frame->data[0]));
  SamplePlanes planes;
  const auto converted = planes.Convert(*frame);
  ASSERT_EQ(converted.size(), 2U);
  EXPECT_EQ((std::vector<float>{converted[0], converted[0] + 2}), (std::vector{-1.0F, 0.25F}));
  EXPECT_EQ((std::vector<float>{converted[1], converted[1] + 2}), (std::vector{0.5F, 0.0F}));
}

// A clip with audio of this kind, read to its end through an audio path.
class AudioPassthroughTest : public testing::Test {
 protected:
  std::vector<AudioPacket> Take(const std::string& codec, const std::string& extension,
                                const std::string& rate = "48000", const std::string& audio = {}) {
    ClipRecipe recipe = SmallClip();
    recipe.pictures.clear();
    recipe.audio = "sine=frequency=440:sample_rate=" + rate + ",aformat=channel_layouts=stereo";
    recipe.audio = audio.empty() ? recipe.audio : audio;
    recipe.audioCodec = codec;
    recipe.language = "deu";
    return TakeFile(Write(recipe, folder_ / (codec + rate + extension)));
  }
  std::vector<AudioPacket> TakeFile(const std::filesystem::path& file) {
    MediaReader reader(Source(file));
    reader.Open();
    AudioPassthrough passthrough(track_, "eng",
                                 [this](const std::string& what) { said_.push_back(what); });
    passthrough.Announce(reader.audioParameters(), &*reader.info().audio);
    std::vector<AudioPacket> packets;
    const auto sink = [&](AudioPacket packet) {
      packets.push_back(std::move(packet));
      return true;
    };
    source_ = 0;
    ReadEach(reader, [&](MediaItem item) {
      if (auto* const packet = std::get_if<AudioPacket>(&item)) {
        ++source_;
        last_ = BytesOf(*packet);
        passthrough.Take(std::move(*packet), *reader.audioParameters(), *reader.info().audio, sink);
      } else if (const auto* const samples = std::get_if<AudioSamples>(&item)) {
        passthrough.Take(*samples, sink);
      }
    });
    passthrough.Finish(sink);
    lost_ = passthrough.lost();
    return packets;
  }

  static std::string BytesOf(const AudioPacket& packet) {
    return {reinterpret_cast<const char*>(packet.packet->data),
            static_cast<std::size_t>(packet.packet->size)};
  }

  const TemporaryFolder folder_;
  std::shared_ptr<AudioTrack> track_ = std::make_shared<AudioTrack>();
  std::vector<std::string> said_;
  std::size_t source_ = 0;  // packets of the source
  std::string last_;        // the bytes of the last one
  std::uint64_t lost_ = 0;
};

TEST_F(AudioPassthroughTest, SamplesThatAreNoNumbersCostTheirFramesOnly) {
  const auto packets = Take("pcm_f32le", ".mkv", "48000",
                            "aevalsrc=exprs='if(eq(n,9000),0/0,if(eq(n,20000),1e30,sin(n/9)))|0':"
                            "sample_rate=48000");
  EXPECT_THAT(said_, testing::ElementsAre(HasSubstr("is encoded for the outputs (aac")));
  EXPECT_GE(packets.size(), 46U) << "a second of frames of 1024 samples";
  EXPECT_EQ(lost_, 2U);
}

TEST_F(AudioPassthroughTest, EncodesIntoTheTrackWhenTheSourceComesBackInAnotherForm) {
  ASSERT_EQ(Take("ac3", ".mkv").size(), source_);
  const auto format = track_->format();
  for (const auto& [codec, rate] : {std::pair{"aac", "44100"}, {"mp2", "48000"}}) {
    const auto packets = Take(codec, ".mkv", rate);
    ASSERT_GT(packets.size(), 25U);
    EXPECT_EQ(track_->format(), format) << "a track keeps its format";
    for (const AudioPacket& packet : packets) {
      EXPECT_EQ(packet.format, format);
      EXPECT_EQ(packet.packet->data[0], 0x0B) << "the sync word of AC-3";
      EXPECT_EQ(packet.packet->data[1], 0x77);
    }
  }
  EXPECT_THAT(said_, testing::ElementsAre(HasSubstr("(aac, 44100 Hz, 2 channels) is encoded"),
                                          HasSubstr("(mp2, 48000 Hz, 2 channels) is encoded")));
  said_.clear();
  EXPECT_EQ(Take("ac3", ".ts").size(), source_) << "in its first form it passes again";
  EXPECT_THAT(said_, testing::IsEmpty());
}

// The demuxer reads the beginning of a stream only, so the track would get packets that it does not
// describe. The channels of E-AC-3 are known to the decoder only.
TEST_F(AudioPassthroughTest, NoticesAnotherFormWithinOneStreamAndItsReturn) {
  struct Case {
    const char* codec;
    const char* extension;
    std::size_t skipped;  // bytes of the later files: their headers
    std::array<const char*, 2> forms;
  };
  constexpr std::array kRates{"44100,aformat=channel_layouts=stereo",
                              "48000,aformat=channel_layouts=stereo"};
  constexpr std::array kLayouts{"48000,aformat=channel_layouts=stereo",
                                "48000,aformat=channel_layouts=mono"};
  for (const Case& each : {Case{"mp2", ".ts", 0, kRates},
                           {"mp2", ".ts", 0, kLayouts},
                           {"ac3", ".ts", 0, kRates},
                           {"ac3", ".ts", 0, kLayouts},
                           {"eac3", ".ts", 0, kLayouts},
                           {"aac", ".flv", 13, kRates}}) {
    std::string stream;
    for (const char* const form : {each.forms[0], each.forms[1], each.forms[0]}) {
      Take(each.codec, each.extension, "", std::string("sine=frequency=440:sample_rate=") + form);
      stream += ReadWholeFile(folder_ / (std::string(each.codec) + each.extension))
                    .substr(stream.empty() ? 0 : each.skipped);
    }
    track_ = std::make_shared<AudioTrack>();
    said_.clear();
    const auto file = folder_ / (std::string("all") + each.extension);
    WriteWholeFile(file, stream);
    const auto packets = TakeFile(file);
    const std::string what = std::string(each.codec) + " " + each.forms[1];
    EXPECT_THAT(said_, testing::ElementsAre(HasSubstr("is encoded for the outputs"))) << what;
    ASSERT_GT(packets.size(), 75U) << what;
    for (const AudioPacket& packet : packets) {
      EXPECT_EQ(packet.format, track_->format());
    }
    EXPECT_EQ(BytesOf(packets.back()), last_) << what << ": in its first form it passes again";
  }
}

}  // namespace
}  // namespace host
