// What an output and an encoder do when they fail.
#include <csignal>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "host/output/output.h"
#include "host/output/picture_encoder.h"
#include "tests/host/clips.h"
#include "tests/host/observers.h"
#include "tests/host/output/pass_fixture.h"
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

class OutputFailureTest : public PassTest {
 protected:
  OutputFailureTest() : PassTest("wall.ts") {}

  Output::Settings Settings(const std::string& url = "") {
    Output::Settings settings;
    settings.pass = settings_;
    settings.pass.formatLimit = 0;
    settings.pass.muxer.url = url.empty() ? settings_.muxer.url : url;
    settings.pass.muxer.isPaced = settings.live = true;
    settings.firstDelay = settings.longestDelay = milliseconds(2);
    return settings;
  }
  // Frames, until something is the case.
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
  int frames_ = 0;
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
  MediaReader reader(Source(output.file()));
  reader.Open();
  EXPECT_GE(ReadAll(reader).pictures.size(), 50U);
}

TEST_F(OutputFailureTest, AnAddressThatCannotBeReachedIsNotOpenBetweenTwoFailures) {
  // Broadcasts need permission: every send fails, and none of what comes before.
  Output output(Settings("udp://255.255.255.255:9"), encoder_.parameters(), &observer_, nullptr);
  FeedUntil(output, "four failures", [&] { return observer_.failures().size() >= 4; });
  EXPECT_THAT(observer_.openings(), testing::IsEmpty());
  EXPECT_THAT(observer_.failures(), testing::Each(HasSubstr("Permission denied")));
}

TEST_F(OutputFailureTest, DatagramsMayLeaveWhenTheLimitOfTheirWriteIsOver) {
  Output::Settings settings = Settings("udp://127.0.0.1:9");
  settings.pass.muxer.writeLimit = milliseconds(0);
  Output output(settings, encoder_.parameters(), &observer_, nullptr);
  FeedUntil(output, "a second is written", [&] { return output.counters().of(-1).written > 25; });
  EXPECT_THAT(observer_.failures(), testing::IsEmpty());
}

TEST(PictureEncoder, IsOpenedAgainAfterAFailureAndBeginsWithAKeyframe) {
  for (const bool live : {true, false}) {
    PictureEncoder::Settings settings;
    settings.encoder.width = 96;
    settings.encoder.height = 64;
    settings.encoder.lowDelay = true;
    settings.live = live;
    settings.firstDelay = milliseconds(0);
    PictureEncoder encoder(settings, nullptr);
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
    encoder.Finish();
    EXPECT_EQ(encoder.dropped(), 1U);
    EXPECT_EQ(heard, live ? (std::vector<std::string>{"key", "frame", "fails", "recovers", "key",
                                                      "frame", "frame"})
                          : (std::vector<std::string>{"key", "frame", "ends"}));
  }
}

}  // namespace
}  // namespace host
