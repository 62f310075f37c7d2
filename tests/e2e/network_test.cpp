#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/audio_harness.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"
#include "tests/support/local_socket.h"
#include "tests/support/temporary_folder.h"

namespace {

using host::kSecond;
using testing::HasSubstr;

// The other end, which reads one second.
class Receiver {
 public:
  Receiver(const std::string& url, std::map<std::string, std::string> options) {
    host::MediaReader::Settings settings = host::Source(url);
    settings.options.options = std::move(options);
    settings.options.openLimit = settings.options.readLimit = 50 * kSecond;
    reader_.emplace(settings);
    thread_ = std::thread([this] { Read(); });
  }
  ~Receiver() {
    reader_->Cancel();
    thread_.join();
  }
  bool done() const { return done_; }
  // Valid once it is done.
  const host::MediaInfo& info() const { return reader_->info(); }
  const std::string& failure() const { return failure_; }

 private:
  void Read() {
    try {
      reader_->Open();
      int pictures = 0;
      int packets = 0;
      while (pictures < 25 || packets < 25) {
        const host::MediaItem item = reader_->Read();
        pictures += std::holds_alternative<host::DecodedFrame>(item) ? 1 : 0;
        packets += std::holds_alternative<host::AudioPacket>(item) ? 1 : 0;
        if (std::holds_alternative<host::EndOfMedia>(item)) {
          failure_ = "it ended";
          break;
        }
      }
    } catch (const std::exception& error) {
      failure_ = error.what();
    }
    done_ = true;
  }

  std::optional<host::MediaReader> reader_;
  std::string failure_;  // the thread's until it is done
  std::atomic<bool> done_{false};
  std::thread thread_;
};

class NetworkTest : public e2e::WallTest {
 protected:
  void SetUp() override {
    int x = 0;
    for (const auto& [codec, language] : {std::pair("ac3", "eng"), {"aac", ""}, {"mp2", ""}}) {
      e2e::FlashClip clip;
      clip.codec = codec;
      clip.language = language;
      const std::string file = folder_ / (clip.codec + ".mkv");
      e2e::WriteFlashClip(clip, file);
      wall_.AddChannel(file, {x, 0, 32, 32});
      x += 40;
    }
  }
  static host::config::Output To(const std::string& url) {
    host::config::Output output = e2e::To(url);
    output.lowDelay = true;
    return output;
  }
  // Runs the wall live into the outputs until the receivers have read enough.
  void SendTo(const std::vector<host::config::Output>& outputs,
              const std::function<bool()>& allDone) {
    wall_.wall().outputs = outputs;
    RunLiveUntil(wall_, wall_.SessionSettings(), "a second of the wall has reached its receivers",
                 [&](host::OutputSet&) { return allDone(); });
  }

  // The selection border needs room below its window.
  e2e::TestWall wall_{160, 48};
};

TEST_F(NetworkTest, TransportStreamsOverUdpAndSrtCarryEveryChannelsAudio) {
  const std::string udp = "udp://127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
  const std::string srt = "srt://127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
  const Receiver overUdp(udp, {});
  const Receiver overSrt(srt, {{"mode", "listener"}});
  SendTo({To(udp), To(srt)}, [&] { return overUdp.done() && overSrt.done(); });
  for (const Receiver* const receiver : {&overUdp, &overSrt}) {
    ASSERT_EQ(receiver->failure(), "");
    const auto& tracks = receiver->info().audioTracks;
    ASSERT_EQ(tracks.size(), 3U);
    EXPECT_TRUE(tracks[0].codec == "ac3" && tracks[0].language == "eng");
  }
}

TEST_F(NetworkTest, RtmpCarriesTheAudioOfTheSelectedChannelAndSaysSo) {
  wall_.wall().channels[2].selected = true;
  const std::string url =
      "rtmp://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/live/wall";
  const Receiver receiver(url, {{"listen", "1"}});
  SendTo({To(url)}, [&] { return receiver.done(); });
  ASSERT_EQ(receiver.failure(), "");
  ASSERT_EQ(receiver.info().audioTracks.size(), 1U);
  EXPECT_EQ(receiver.info().audioTracks[0].codec, "aac") << "FLV holds no MP2";
  EXPECT_THAT(wall_.outputs().said(),
              testing::Contains(HasSubstr("flv holds one track of audio: that of \"mp2\"")));
}

TEST_F(NetworkTest, HlsHasARenditionWithItsNameForEveryChannel) {
  ASSERT_EQ(wall_.RenderInto({To((folder_ / "wall.m3u8").string())})[0].failure, "");
  const std::string playlist = ReadWholeFile(folder_ / "wall.m3u8");
  EXPECT_THAT(playlist, HasSubstr("NAME=\"ac3\",LANGUAGE=\"eng\",DEFAULT=YES"));
  EXPECT_THAT(playlist, HasSubstr("NAME=\"mp2\",DEFAULT=NO"));
  EXPECT_THAT(playlist, HasSubstr("RESOLUTION=160x48"));
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.m3u8"), "");
  for (std::size_t track = 1; track <= 3; ++track) {
    EXPECT_GT(e2e::ReadPackets(folder_ / "wall.m3u8", track).size(), 100U) << track;
  }
  const auto reader = host::Opened(host::Source(folder_ / "wall.m3u8"));
  for (const host::AudioInfo& track : reader->info().audioTracks) {
    EXPECT_EQ(track.codec, "aac") << "browsers play neither AC-3 nor MP2";
  }
}

}  // namespace
