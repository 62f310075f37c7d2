#include <array>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/channel/audio/audio_passthrough.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using testing::HasSubstr;

// A clip with audio of this kind, read whole through a path.
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
    AudioPassthrough road(track_, "eng",
                          [this](const std::string& what) { said_.push_back(what); });
    road.Announce(reader.audioParameters(), &*reader.info().audio);
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
        road.Take(std::move(*packet), *reader.audioParameters(), *reader.info().audio, sink);
      } else if (const auto* const samples = std::get_if<AudioSamples>(&item)) {
        road.Take(*samples, sink);
      }
    });
    road.Finish(sink);
    lost_ = road.lost();
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

// The demuxer looks at the beginning of a stream only: without more the track would carry packets
// that it does not describe. E-AC-3 tells its channels to the decoder only.
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
