// What an output and an encoder do when they fail.
#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avio.h>
}

#include "host/output/encoder_thread.h"
#include "host/output/output.h"
#include "host/output/output_set.h"
#include "tests/host/clips.h"
#include "tests/host/observers.h"
#include "tests/host/output/output_session_fixture.h"
#include "tests/support/foreign_sample.h"

namespace host {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// The files that this process writes can be no longer, as on a disk that is nearly full.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &former_);
    const rlimit limit{bytes, former_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &former_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit former_{};
};

class OutputFailureTest : public OutputSessionTest {
 protected:
  OutputFailureTest() : OutputSessionTest("wall.ts") {}

  Output::Settings Settings(const std::string& url = "") {
    Output::Settings settings;
    settings.session = settings_;
    settings.session.formatLimit = 0;
    settings.session.muxer.url = url.empty() ? settings_.muxer.url : url;
    settings.session.muxer.isPaced = settings.live = true;
    settings.reopen = {milliseconds(2), milliseconds(2)};
    return settings;
  }
  // Encodes frames until a condition is met.
  void FeedUntil(Output& output, const char* what, const std::function<bool()>& isSo) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isSo() && std::chrono::steady_clock::now() < limit) {
      const support::Yv12Buffer picture(96, 64);
      encoder_.Encode(picture.bytes(), frames_++ * 400'000,
                      [&](const ffmpeg::Packet& packet) { output.TakeVideo(*packet); });
      std::this_thread::yield();
    }
    ASSERT_TRUE(isSo()) << what;
  }
  std::size_t Files() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder_.Path()), {}));
  }

  OutputLog observer_;
  REFERENCE_TIME frames_ = 0;
};

TEST_F(OutputFailureTest, AFullDiskLeavesNoStubsAndIsReportedOnce) {
  Output output(Settings(), encoder_.parameters(), &observer_, nullptr);
  {
    const FileSizeLimit limit(3000);
    FeedUntil(output, "six failures", [&] { return observer_.failures().size() >= 6; });
    EXPECT_LE(Files(), 2U) << "what was recorded before, and the file of this moment";
    EXPECT_LE(observer_.openings().size(), 1U);
  }
  const std::size_t before = observer_.openings().size();
  FeedUntil(output, "it is open again", [&] { return observer_.openings().size() > before; });
  EXPECT_EQ(observer_.openings().back().substr(0, 7), "again: ");
  output.Finish(std::chrono::seconds(20));
  EXPECT_GE(ReadFile(output.file()).pictures.size(), 50U);
}

TEST_F(OutputFailureTest, AnAddressThatCannotBeReachedIsNotOpenBetweenTwoFailures) {
  // Broadcasts need permission: every send fails, but nothing before it does.
  Output output(Settings("udp://255.255.255.255:9"), encoder_.parameters(), &observer_, nullptr);
  FeedUntil(output, "four failures", [&] { return observer_.failures().size() >= 4; });
  EXPECT_THAT(observer_.openings(), testing::IsEmpty());
  EXPECT_THAT(observer_.failures(), testing::Each(HasSubstr("Permission denied")));
}

TEST_F(OutputFailureTest, DatagramsMayLeaveWhenTheLimitOfTheirWriteIsOver) {
  Output::Settings settings = Settings("udp://127.0.0.1:9");
  settings.session.muxer.writeLimit = milliseconds(0);
  Output output(settings, encoder_.parameters(), &observer_, nullptr);
  FeedUntil(output, "a second is written", [&] { return output.counters().of(-1).written > 25; });
  EXPECT_THAT(observer_.failures(), testing::IsEmpty());
}

// A port that is closed now and then would refuse viewers that connect in between.
TEST_F(OutputFailureTest, AListenerKeepsItsPortHoweverLateItsViewerIs) {
  for (const auto& [url, query] :
       {std::pair<std::string, const char*>("tcp://127.0.0.1:18731", "?listen=1"),
        {"http://127.0.0.1:18732", ""},
        {"srt://127.0.0.1:18733", "?mode=listener"}}) {
    Output::Settings settings = Settings(url + query);
    settings.session.muxer.format = "mpegts";
    if (*query == '\0') {
      settings.session.muxer.options = {{"listen", "1"}};
    }
    settings.session.muxer.openLimit = milliseconds(30);
    OutputLog observer;
    Output output(settings, encoder_.parameters(), &observer, nullptr);
    FeedUntil(output, "many limits", [&, since = std::chrono::steady_clock::now()] {
      return std::chrono::steady_clock::now() - since > milliseconds(400);
    });
    EXPECT_THAT(observer.failures(), testing::IsEmpty()) << url;
    AVIOContext* viewer = nullptr;
    EXPECT_EQ(avio_open(&viewer, url.c_str(), AVIO_FLAG_READ), 0) << url;
    FeedUntil(output, url.c_str(), [&] { return output.openings() == 1; });
    avio_closep(&viewer);
  }
}

// A rendering is in no hurry: its consumer may stall for longer than any limit of a live wall.
TEST_F(OutputFailureTest, ARenderingWaitsForItsConsumer) {
  const std::string pipe = (folder_ / "pipe").string();
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  OutputSet::Settings settings;
  OutputSet::Item item;
  item.name = item.muxer.url = pipe;
  item.muxer.format = "mpegts";
  item.muxer.writeLimit = milliseconds(20);
  item.encoder = Video(kSecond);
  item.encoder.bitRate = 20'000'000;
  settings.outputs.push_back(item);
  OutputSet set(settings, &observer_, nullptr);
  std::size_t read = 0;
  std::thread consumer([&] {
    std::ifstream file(pipe, std::ios::binary);
    std::this_thread::sleep_for(milliseconds(400));
    for (std::array<char, 4096> bytes;
         file.read(bytes.data(), bytes.size()) || file.gcount() > 0;) {
      read += static_cast<std::size_t>(file.gcount());
    }
  });
  std::mt19937 noise;
  for (int i = 0; i < 50; ++i) {
    while (!set.WaitForRoom(milliseconds(100))) {
      ASSERT_FALSE(set.allFailed());
    }
    const auto sample = fakes::ForeignSample::Create(96 * 64 * 3 / 2);
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    std::generate_n(pixels, 96 * 64 * 3 / 2, std::ref(noise));
    set.Take(ComPtr<IMediaSample>(sample.Get()), i * 400'000);
  }
  set.Finish();
  consumer.join();
  EXPECT_THAT(observer_.failures(), testing::IsEmpty());
  EXPECT_EQ(set.status()[0].video.written, 50U);
  EXPECT_GT(read, std::size_t{100'000}) << "more than a pipe holds";
}

// FFmpeg's wrapper of this encoder never ends when it is closed without having had a frame.
TEST(VideoEncoder, CanBeClosedWithoutAFrame) {
  for (const char* const codec : {"libsvtav1", "libx264"}) {
    VideoEncoder::Settings settings;
    settings.width = 320;
    settings.height = 180;
    settings.codec = codec;
    if (avcodec_find_encoder_by_name(codec) != nullptr) {
      VideoEncoder(settings).Finish([](const ffmpeg::Packet&) { ADD_FAILURE(); });
    }
  }
}

TEST(EncoderThread, IsOpenedAgainAfterAFailureAndBeginsWithAKeyframe) {
  for (const bool live : {true, false}) {
    EncoderThread::Settings settings;
    settings.encoder = SmallVideo();
    settings.encoder.lowDelay = true;
    settings.live = live;
    settings.reopen.min = milliseconds(0);
    EncoderThread encoder(settings, nullptr);
    std::vector<std::string> heard;  // of the encoder's thread
    encoder.Add({[&](const AVPacket& packet) {
                   heard.emplace_back((packet.flags & AV_PKT_FLAG_KEY) != 0 ? "key" : "frame");
                 },
                 [&](const std::string&, std::optional<milliseconds> retryIn) {
                   heard.emplace_back(retryIn ? "fails" : "ends");
                 },
                 [&] { heard.emplace_back("recovers"); }});
    for (int i = 0; i < 6; ++i) {
      // The third one is no frame.
      const auto sample = fakes::ForeignSample::Create(i == 2 ? 10 : 96 * 64 * 3 / 2);
      encoder.Take(ComPtr<IMediaSample>(sample.Get()), i * 400'000);
    }
    encoder.Start();
    encoder.Finish(std::chrono::minutes(1));
    EXPECT_EQ(encoder.dropped(), 1U);
    EXPECT_EQ(heard, live ? (std::vector<std::string>{"key", "frame", "fails", "recovers", "key",
                                                      "frame", "frame"})
                          : (std::vector<std::string>{"key", "frame", "ends"}));
  }
}

}  // namespace
}  // namespace host
