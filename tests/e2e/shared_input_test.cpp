// Sources that several readers share through one demuxer.
#include <atomic>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/channel/source/media_info.h"
#include "host/channel/source/shared_input.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"
#include "tests/support/http_server.h"
#include "tests/support/pipe.h"
#include "tests/support/rtsp_server.h"
#include "tests/support/wait_until.h"

namespace {

using host::kSecond;
using host::MediaReader;
using std::chrono::milliseconds;
using support::RtspServer;
using testing::IsEmpty;

// The luma of a frame is its number, modulo 100.
host::ClipRecipe CountingFrames() {
  host::ClipRecipe recipe;
  recipe.name = "Counting";
  recipe.pictures =
      "color=black:size=64x36:rate=25,format=yuv420p,geq=lum='20+2*mod(N,100)':cb=128:cr=128";
  recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}, {"g", "10"}, {"bf", "0"}};
  recipe.audio = "sine=frequency=440:sample_rate=48000";
  recipe.length = 40 * kSecond;
  return recipe;
}

MediaReader::Settings SharedSource(const std::string& source,
                                   const host::SharedInput::Limits& limits = {}) {
  MediaReader::Settings settings = host::Source(source);
  settings.live = true;
  settings.inputs = std::make_shared<host::SharedInputs>(limits);
  settings.options.openLimit = settings.options.readLimit = 20 * kSecond;
  return settings;
}

// Reads a source as a channel does, and opens it again when it fails.
class SharingChannel {
 public:
  explicit SharingChannel(MediaReader::Settings settings)
      : settings_(std::move(settings)), thread_([this] { Run(); }) {}
  ~SharingChannel() { Leave(); }
  void Leave() {
    {
      const std::lock_guard guard(lock_);
      ends_ = true;
      if (reader_) {
        reader_->Cancel();
      }
    }
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  void WaitForFrames(int more) const {
    const int wanted = frames + more;
    WaitUntil("frames have come", [&] { return frames >= wanted; });
  }
  // Once it has left.
  void ExpectNoGap() const {
    EXPECT_THAT(failures, IsEmpty());
    for (std::size_t i = 1; i < numbers.size(); ++i) {
      ASSERT_EQ(numbers[i], (numbers[i - 1] + 1) % 100) << "frame " << i;
    }
  }

  std::atomic<int> frames{0};
  std::atomic<int> failed{0};
  std::vector<int> numbers;           // of the frames, once it has left
  std::vector<std::string> failures;  // likewise

 private:
  void Run() {
    for (;;) {
      {
        const std::lock_guard guard(lock_);
        reader_.reset();
        if (ends_) {
          return;
        }
        reader_ = std::make_unique<MediaReader>(settings_);
      }
      try {
        reader_->Open();
        ReadEach(*reader_, [&](const host::MediaItem& item) {
          if (const auto* const frame = std::get_if<host::DecodedFrame>(&item)) {
            numbers.push_back(e2e::FrameNumber(frame->frame->data[0][0]));
            ++frames;
          }
        });
        failures.emplace_back("ended");
      } catch (const host::MediaError& error) {
        if (error.kind() != host::MediaError::Kind::kCancelled) {
          failures.push_back(error.reason());
        }
      }
      failed = static_cast<int>(failures.size());
      std::this_thread::sleep_for(milliseconds(20));
    }
  }

  const MediaReader::Settings settings_;
  std::mutex lock_;
  bool ends_ = false;                    // guarded by lock_
  std::unique_ptr<MediaReader> reader_;  // is replaced under lock_
  std::thread thread_;
};

class SharedInputTest : public e2e::WallTest {
 protected:
  MediaReader::Settings CameraSettings(const host::SharedInput::Limits& limits = {}) {
    MediaReader::Settings settings = SharedSource(camera_.Url(), limits);
    settings.options.options["rtsp_transport"] = "tcp";
    camera_.AllowSessions(1);
    return settings;
  }

  RtspServer camera_{host::Write(CountingFrames(), folder_ / "camera.mkv")};
};

TEST_F(SharedInputTest, ACameraWithOneSessionServesAllAndFailsAndReturnsForAll) {
  const MediaReader::Settings settings = CameraSettings();
  SharingChannel first(settings);
  {
    SharingChannel second(settings);
    second.WaitForFrames(20);
    first.WaitForFrames(1);
    second.Leave();
    second.ExpectNoGap();
  }
  const auto returned = std::make_unique<SharingChannel>(settings);
  returned->WaitForFrames(20);
  EXPECT_EQ(first.failed + returned->failed, 0);
  const int whole = first.frames;
  camera_.HangUpAfter(milliseconds(1));
  WaitUntil("both have failed", [&] { return first.failed > 0 && returned->failed > 0; });
  camera_.HangUpAfter(milliseconds(0));
  returned->WaitForFrames(5);
  first.WaitForFrames(5);
  returned->Leave();
  first.Leave();
  EXPECT_EQ(first.failures.front(), returned->failures.front());
  EXPECT_EQ(camera_.refused(), 0);
  first.failures.clear();
  first.numbers.resize(static_cast<std::size_t>(whole));
  first.ExpectNoGap();
  WaitUntil("the last one that leaves closes the session", [&] { return camera_.clients() == 0; });
}

TEST_F(SharedInputTest, ASlowReaderOfACameraLosesUpToAKeyframeAndTheOtherNothing) {
  for (const std::size_t packets : {300U, 8U}) {  // whose latter half may be without a keyframe
    host::SharedInput::Limits limits;
    limits.packets = packets;
    const MediaReader::Settings settings = CameraSettings(limits);
    host::ffmpeg::IoDeadline deadline;
    const auto source = settings.inputs->Open(settings, deadline);
    auto& slow = dynamic_cast<host::SharedInput::Subscription&>(*source);
    const int video = host::ChooseVideoStream(slow.context());
    slow.Select(host::TrackKind::kVideo, video);
    host::ffmpeg::Packet packet = host::ffmpeg::MakePacket();
    SharingChannel other(settings);
    slow.Read(packet, true);  // it has chosen
    const std::uint64_t before = slow.overflows();
    WaitUntil("its queue was full", [&] { return slow.overflows() > before; });
    while (slow.Read(packet, true) != host::PacketSource::Outcome::kPacket) {
    }
    EXPECT_EQ(packet->stream_index, video);
    EXPECT_TRUE((packet->flags & AV_PKT_FLAG_KEY) != 0) << packets;
    if (packets == 300) {
      other.WaitForFrames(10);
      other.Leave();
      other.ExpectNoGap();
    }
  }
}

// What one reader cannot decode, another can. When none can, the source has to be opened again.
TEST_F(SharedInputTest, ASourceThatNoReaderCanUseIsOpenedAgain) {
  const MediaReader::Settings settings = CameraSettings();
  const auto open = [&] {
    host::ffmpeg::IoDeadline deadline;
    return settings.inputs->Open(settings, deadline);
  };
  const auto fail = [](std::unique_ptr<host::PacketSource>& reader) {
    EXPECT_THROW(reader->Fail(host::MediaError::Kind::kFailed, "strange"), host::MediaError);
    reader.reset();
  };
  const auto read = [](host::PacketSource& reader) {
    host::ffmpeg::Packet packet = host::ffmpeg::MakePacket();
    while (reader.Read(packet, false) != host::PacketSource::Outcome::kPacket) {
    }
  };
  auto one = open();
  auto other = open();
  for (int i = 0; i < 3; ++i) {
    fail(one);
    one = open();
    read(*other);
  }
  const std::uint64_t bytes = other->counts().bytes;
  EXPECT_LT(one->counts().bytes, bytes) << "since it came";
  fail(other);  // and the first one came after it had failed
  EXPECT_THROW(
      for (;;) { read(*one); }, host::MediaError);
  one.reset();
  read(*open());
  EXPECT_EQ(camera_.refused(), 0);
}

class SharedStreamTest : public e2e::WallTest {};

// The first one stops reading for a while.
TEST_F(SharedStreamTest, EachSegmentOfAPlaylistIsRequestedOnceAndAStalledReaderHoldsUpNoOther) {
  host::ClipRecipe recipe = CountingFrames();
  recipe.containerOptions = {{"hls_time", "1"},
                             {"hls_list_size", "0"},
                             {"hls_flags", "omit_endlist"},
                             {"hls_segment_filename", (folder_ / "part%d.ts").string()}};
  host::Write(recipe, folder_ / "list.m3u8");
  std::mutex lock;
  std::map<std::string, int> requests;
  const HttpServer server([&](const std::string& path) {
    const std::lock_guard guard(lock);
    ++requests[path];
    return std::optional(ReadWholeFile(folder_ / path.substr(1)));
  });
  MediaReader::Settings settings = SharedSource(server.UrlOf("list.m3u8"));
  settings.options.options["live_start_index"] = "0";
  const auto stalled = host::Opened(settings);
  stalled->Read();
  {
    SharingChannel first(settings);
    SharingChannel second(settings);
    first.WaitForFrames(400);
    second.WaitForFrames(400);
    first.Leave();
    second.Leave();
    first.ExpectNoGap();
    second.ExpectNoGap();
  }
  int number = -1;
  for (int frames = 0; frames < 400;) {
    const host::MediaItem item = stalled->Read();
    if (const auto* const frame = std::get_if<host::DecodedFrame>(&item)) {
      const int next = e2e::FrameNumber(frame->frame->data[0][0]);
      ASSERT_TRUE(number < 0 || next == (number + 1) % 100) << "frame " << frames;
      number = next;
      ++frames;
    }
  }
  const std::lock_guard guard(lock);
  EXPECT_GT(requests.size(), 10U);
  requests.erase("/list.m3u8");
  EXPECT_THAT(requests, testing::Each(testing::Pair(testing::_, 1)));
}

TEST_F(SharedStreamTest, EachReadsAFileOfAServerFromItsBeginning) {
  host::ClipRecipe recipe = CountingFrames();
  recipe.length = 8 * kSecond;
  recipe.containerOptions = {{"movflags", "+faststart"}};
  const HttpServer server(ReadWholeFile(host::Write(recipe, folder_ / "whole.mp4")),
                          HttpServer::Manner::kPromisesRanges);
  MediaReader::Settings settings = SharedSource(server.url());
  settings.options.repeat = false;
  const auto one = host::Opened(settings);
  EXPECT_EQ(one->info().kind, host::SourceKind::kFile);
  const auto other = host::Opened(settings);
  EXPECT_EQ(host::ReadAll(*one).pictures.size(), 200U);
  EXPECT_EQ(host::ReadAll(*other).pictures.size(), 200U);
}

// The audio is announced, or comes with another PMT; one of the two readers does not want it.
TEST_F(SharedStreamTest, AudioThatBeginsLaterReachesOneReaderAndInterruptsNoOther) {
  host::ClipRecipe recipe = CountingFrames();
  recipe.length = 3 * kSecond;
  const std::string whole = ReadWholeFile(host::Write(recipe, folder_ / "whole.ts"));
  std::string mute;
  for (std::size_t at = 0; at < whole.size(); at += 188) {
    const int pid = (whole[at + 1] & 0x1F) << 8 | static_cast<std::uint8_t>(whole[at + 2]);
    mute += pid != 0x101 ? whole.substr(at, 188) : "";
  }
  recipe.containerOptions = {{"tables_version", "3"}};
  const std::string fuller = ReadWholeFile(host::Write(recipe, folder_ / "fuller.ts"));
  recipe.containerOptions.clear();
  recipe.audio.clear();
  const std::string alone = ReadWholeFile(host::Write(recipe, folder_ / "alone.ts"));
  for (const auto& [before, after] : {std::pair(mute, whole), {alone, fuller}}) {
    Pipe pipe(folder_ / std::to_string(before.size()));
    pipe.Open();
    // Again and again: a reader gets audio only once it has chosen it.
    std::atomic<const std::string*> sent = &before;
    const std::jthread writing([&](const std::stop_token& stop) {
      for (; !stop.stop_requested(); std::this_thread::sleep_for(milliseconds(50))) {
        pipe.Write(*sent);
      }
    });
    MediaReader::Settings settings = SharedSource(pipe.path());
    settings.options.options = {{"probesize", "4000"}};
    MediaReader::Settings quiet = settings;
    quiet.options.audio.enabled = false;
    SharingChannel other(quiet);
    other.WaitForFrames(1);
    auto reader = host::Opened(settings);
    EXPECT_FALSE(reader->info().audio);
    sent = &after;
    EXPECT_THAT([&] { host::ReadAll(*reader); },
                testing::Throws<host::MediaError>(
                    testing::Property(&host::MediaError::reason, "its audio begins")));
    reader = host::Opened(settings);
    ASSERT_TRUE(reader->info().audio);
    EXPECT_EQ(reader->info().audio->sampleRate, 48'000);
    while (!std::holds_alternative<host::AudioSamples>(reader->Read())) {
    }
    reader.reset();
    WaitUntil("the other one has frames of all parts", [&] { return other.frames > 150; });
    other.Leave();
    EXPECT_THAT(other.failures, IsEmpty());
  }
}

}  // namespace
