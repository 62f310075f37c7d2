// Sources that come over the network, and how a wall handles their failures.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/paced_sender.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"
#include "tests/support/rtsp_server.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait_until.h"

namespace {

using host::kSecond;
using std::chrono::milliseconds;
using support::RtspServer;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

host::ClipRecipe Recipe(host::Time length) {
  host::ClipRecipe recipe;
  recipe.name = "Camera";
  recipe.pictures = "testsrc2=size=64x48:rate=25,format=yuv420p";
  recipe.audio = "sine=frequency=440:sample_rate=48000";
  recipe.videoOptions = {{"preset", "ultrafast"}, {"tune", "zerolatency"}, {"g", "10"}};
  recipe.length = length;
  return recipe;
}

// A clip of a transport stream, and how long it plays.
constexpr milliseconds kClipLength{2000};

std::string TransportStream(const os::TemporaryFolder& folder, const std::string& name) {
  const std::filesystem::path file = folder / (name + ".ts");
  host::WriteClip(Recipe(2 * kSecond), file);
  return ReadWholeFile(file);
}

// Positions of the slices of its frames: of the byte with their type.
std::vector<std::size_t> Slices(const std::string& stream) {
  std::vector<std::size_t> slices;
  for (std::size_t at = 0; at + 4 < stream.size(); ++at) {
    const int kind = stream[at + 3] & 0x1F;
    if (stream.compare(at, 3, std::string("\0\0\1", 3)) == 0 && (kind == 1 || kind == 5)) {
      slices.push_back(at + 3);
    }
  }
  EXPECT_GE(slices.size(), 45U) << "not every picture was found";
  return slices;
}

// The same with slices that no decoder can decode: their headers refer to parameters that do not
// exist. Everything else stays as it was.
std::string WithoutDecodableFrames(std::string stream, std::size_t from = 0,
                                   std::size_t to = std::string::npos) {
  constexpr std::size_t kPacket = 188;
  const std::vector<std::size_t> slices = Slices(stream);
  for (std::size_t i = from; i < std::min(to, slices.size()); ++i) {
    const std::size_t slice = slices[i];
    const std::size_t end = std::min(slice + 9, (slice / kPacket + 1) * kPacket);
    std::fill(stream.begin() + static_cast<std::ptrdiff_t>(slice) + 1,
              stream.begin() + static_cast<std::ptrdiff_t>(end), '\1');
  }
  return stream;
}

// The same with stuffing instead of slices.
std::string WithoutFrames(std::string stream) {
  for (const std::size_t slice : Slices(stream)) {
    stream[slice] = 12;
  }
  return stream;
}

class IngestTest : public e2e::WallTest {
 protected:
  std::filesystem::path CameraClip() {
    const std::filesystem::path file = folder_ / "camera.mkv";
    host::WriteClip(Recipe(60 * kSecond), file);
    return file;
  }
  host::config::ChannelOptions& AddChannel(const std::string& name, const std::string& url) {
    const auto count = static_cast<int>(wall_.wall().channels.size());
    wall_.AddChannel(url, {(count % 4) * 70, count / 4 * 60, 64, 48});
    host::config::Channel& channel = wall_.wall().channels.back();
    channel.name = name;
    channel.options.openLimit = 3 * kSecond;
    channel.options.readLimit = kSecond;
    channel.options.hold = 4 * kSecond;
    return channel.options;
  }
  // Waits until one of the channel's states, from the given one on, is as wanted.
  bool WaitFor(const std::string& channel, std::size_t from,
               const testing::Matcher<std::string>& wanted) {
    const std::string what =
        channel + " in the state " + testing::DescribeMatcher<std::string>(wanted);
    return WaitUntil(what.c_str(), [&] {
      const std::vector<std::string> states = wall_.channels().States(channel);
      return std::any_of(
          states.begin() + static_cast<std::ptrdiff_t>(std::min(from, states.size())), states.end(),
          [&](const auto& state) { return wanted.Matches(state); });
    });
  }

  // Waits for that much of the wall's time.
  static void Pass(const host::WallSession& session, host::Time length) {
    const host::Time end = session.now() + length;
    ASSERT_TRUE(WaitUntil("the wall's clock has moved on", [&] { return session.now() >= end; }));
  }

  e2e::TestWall wall_{320, 240};
};

TEST_F(IngestTest, ACameraThatFallsSilentIsHeldThenLostAndReturnsByItself) {
  RtspServer camera(CameraClip());
  AddChannel("tcp", camera.Url("viewer:s3cret@")).options["rtsp_transport"] = "tcp";
  AddChannel("udp", camera.Url("viewer:s3cret@")).options["rtsp_transport"] = "udp";
  const auto session = wall_.MakeLive();
  session->Start();
  const auto bothWaitFor = [&](std::size_t from, const testing::Matcher<std::string>& wanted) {
    return WaitFor("tcp", from, wanted) && WaitFor("udp", from, wanted);
  };
  ASSERT_TRUE(bothWaitFor(0, "live"));
  camera.Become(RtspServer::Mood::kSilent);
  ASSERT_TRUE(bothWaitFor(1, HasSubstr("no data for 1 s")));
  ASSERT_TRUE(bothWaitFor(1, StartsWith("lost: ")));
  camera.Become(RtspServer::Mood::kMute);
  ASSERT_TRUE(bothWaitFor(1, "lost: did not open within 3 s"));
  camera.Become(RtspServer::Mood::kPlays);
  ASSERT_TRUE(bothWaitFor(1, "live"));
  for (const char* const channel : {"tcp", "udp"}) {
    EXPECT_THAT(wall_.channels().States(channel)[1], StartsWith("held: "));
    EXPECT_THAT(wall_.channels().States(channel), Each(Not(HasSubstr("s3cret"))));
  }
  // The wall ends while the camera no longer answers.
  camera.Become(RtspServer::Mood::kMute);
  session->Stop();
}

TEST_F(IngestTest, ACameraThatNeverAnswersStopsNobodyFromLeavingIt) {
  RtspServer camera(CameraClip());
  host::MediaReader::Settings settings = host::Source(camera.Url());
  settings.options.openLimit = 3600 * kSecond;
  auto open = host::Opened(settings);
  camera.Become(RtspServer::Mood::kMute);
  open.reset();
  host::MediaReader reader(settings);
  std::thread opening([&] { EXPECT_THROW(reader.Open(), host::MediaError); });
  std::this_thread::sleep_for(milliseconds(50));  // usually in the middle of opening
  reader.Cancel();
  opening.join();
}

// What no decoder can decode comes with audio, in order and in time.
TEST_F(IngestTest, FramesThatCannotBeDecodedAreNoticedThoughPacketsCome) {
  const std::string good = TransportStream(folder_, "good");
  const std::string bad = WithoutDecodableFrames(good);
  const std::string empty = WithoutFrames(good);
  e2e::PacedSender sender(good, kClipLength, 1.0);
  AddChannel("channel", sender.url()).options["analyzeduration"] = "500000";
  const auto session = wall_.MakeLive();
  session->Start();
  ASSERT_TRUE(WaitFor("channel", 0, "live"));
  sender.SendFromNowOn(bad);
  ASSERT_TRUE(WaitFor("channel", 1, HasSubstr("can no longer be decoded")));
  ASSERT_TRUE(WaitFor("channel", 1, "lost: it sends, but no picture that can be decoded"));
  std::size_t states = wall_.channels().States("channel").size();
  sender.SendFromNowOn(good);
  ASSERT_TRUE(WaitFor("channel", states, "live"));
  // Nothing that the decoder reports as damaged, and no frame.
  states = wall_.channels().States("channel").size();
  sender.SendFromNowOn(empty);
  EXPECT_TRUE(WaitFor("channel", states, "held: it sends, but no picture that can be decoded"));
  session->Stop();
}

// Of a source with 40 frames from one keyframe to the next, all frames of one GOP are damaged.
TEST_F(IngestTest, WhatFollowsADamagedKeyframeComesBackWithTheNext) {
  host::ClipRecipe recipe = Recipe(4 * kSecond);
  recipe.videoOptions["g"] = "40";
  const std::filesystem::path file = folder_ / "damaged.ts";
  host::WriteClip(recipe, file);
  WriteWholeFile(file, WithoutDecodableFrames(ReadWholeFile(file), 40, 80));
  const auto reader = host::Opened(host::Source(file));
  EXPECT_EQ(host::ReadAll(*reader).pictures.size(), 60U);
  EXPECT_GE(reader->damagedPackets(), 40U);
}

// The reader must not continue: that would fail again, at once and indefinitely.
TEST_F(IngestTest, ASenderThatReturnsFromSilenceInAnotherFormIsOpenedAgain) {
  const std::string silence;
  host::ClipRecipe other = Recipe(2 * kSecond);
  other.videoCodec = "mpeg2video";
  other.videoOptions = {{"g", "10"}};
  host::WriteClip(other, folder_ / "other.ts");
  const std::string otherForm = ReadWholeFile(folder_ / "other.ts");
  e2e::PacedSender sender(TransportStream(folder_, "first"), kClipLength, 1.0);
  host::MediaReader::Settings settings = host::Source(sender.url());
  settings.options.readLimit = kSecond / 2;
  const auto reader = host::Opened(settings);
  const auto failure = [&] {
    try {
      for (int items = 0; items < 1000; ++items) {
        reader->Read();
      }
      return std::string("none");
    } catch (const host::MediaError& error) {
      return error.reason() + (reader->canGoOn() ? "" : ", finally");
    }
  };
  sender.SendFromNowOn(silence);
  EXPECT_EQ(failure(), "no data for 0.5 s");
  sender.SendFromNowOn(otherForm);
  EXPECT_EQ(failure(), "its video has changed its form, finally");
}

// The buffer of the protocol holds less than half a second of the fast stream: if the reader waited
// for the wall, it would overflow, and the channel would fail.
TEST_F(IngestTest, FastSendersAndThoseThatBeginAgainInterruptNothing) {
  const std::string clip = TransportStream(folder_, "clip");
  const e2e::PacedSender fast(clip, kClipLength, 1.4);
  e2e::PacedSender changing(clip, kClipLength, 1.0, e2e::PacedSender::Framing::kRtp);
  AddChannel("fast", fast.url() + "?fifo_size=60");
  AddChannel("rtp", changing.url());
  const auto session = wall_.MakeLive();
  session->Start();
  ASSERT_TRUE(WaitFor("fast", 0, "live"));
  ASSERT_TRUE(WaitFor("rtp", 0, "live"));
  for (int i = 0; i < 8; ++i) {
    changing.ChangeSsrc();
    Pass(*session, kSecond);
  }
  session->Stop();
  for (const char* const channel : {"fast", "rtp"}) {
    EXPECT_EQ(wall_.channels().Failure(channel), "");
    EXPECT_THAT(wall_.channels().States(channel), testing::ElementsAre("live"));
  }
}

TEST_F(IngestTest, ADescriptionOfWhatIsSentIsASource) {
  const e2e::PacedSender sender(TransportStream(folder_, "described"), kClipLength, 1.0,
                                e2e::PacedSender::Framing::kRtp);
  const std::string url = sender.url();
  const std::filesystem::path file = folder_ / "camera.sdp";
  std::ofstream(file) << "v=0\nc=IN IP4 127.0.0.1\nm=video " << url.substr(url.rfind(':') + 1)
                      << " RTP/AVP 33\n";
  const host::MediaInfo info = host::Opened(host::Source(file))->info();
  EXPECT_EQ(info.kind, host::SourceKind::kPush);
  EXPECT_EQ(info.video->codec + info.audio->codec, "h264aac");
}

// The entries of a folder in /proc/self: descriptors, threads.
std::ptrdiff_t Count(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

// The threads of the process with that name.
std::ptrdiff_t CountThreads(const std::string& name) {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::count_if(begin(threads), end(threads), [&](const auto& thread) {
    std::string found;
    std::getline(std::ifstream(thread.path() / "comm"), found);
    return found == name;
  });
}

TEST_F(IngestTest, AHundredReturnsOfLostSourcesCostNoFrameAndLeaveNothingBehind) {
  constexpr int kChannels = 10;
  RtspServer camera(CameraClip());
  for (int i = 0; i < kChannels; ++i) {
    host::config::ChannelOptions& options = AddChannel("camera " + std::to_string(i), camera.Url());
    options.options["rtsp_transport"] = "tcp";
    options.readLimit = 10 * kSecond;
    options.openLimit = options.readLimit + i / 2 * host::kMillisecond;  // two share a session
    options.hold = kSecond / 10;
  }
  e2e::FrameCounter frames;
  const auto session = wall_.MakeLive(frames);
  const auto returns = [&] {
    int sum = 0;
    for (int i = 0; i < kChannels; ++i) {
      const auto states = wall_.channels().States("camera " + std::to_string(i));
      sum += static_cast<int>(std::count(states.begin(), states.end(), "live")) - 1;
    }
    return sum;
  };
  const auto waitFor = [&](int count) {
    ASSERT_TRUE(WaitUntil(
        "the channels have returned", [&] { return returns() >= count; },
        std::chrono::seconds(120)));
  };
  // What the first wall and its first slate load into the process stays there.
  camera.HangUpAfter(milliseconds(300));
  session->Start();
  waitFor(1);
  session->Stop();
  EXPECT_EQ(session->Finish(), 0);
  // The camera notices a little later that its clients have gone.
  const auto openFiles = [&] {
    WaitUntil("nobody is connected", [&] { return camera.clients() == 0; });
    return Count("/proc/self/fd");
  };
  // The thread that has closed a source ends by itself.
  const auto runningThreads = [] {
    WaitUntil("no source is being closed", [] { return CountThreads("input") == 0; });
    return Count("/proc/self/task");
  };
  const std::ptrdiff_t threads = runningThreads();
  const std::ptrdiff_t descriptors = openFiles();
  const host::WallSession::Counters before = session->counters();
  frames.count = 0;
  const int from = returns();
  session->Start();
  waitFor(from + 100);
  session->Stop();
  EXPECT_EQ(session->Finish(), 0);
  const host::WallSession::Counters after = session->counters();
  EXPECT_GE(frames.count + after.late + after.noFreeBuffer - before.late - before.noFreeBuffer,
            frames.ticks());
  EXPECT_EQ(runningThreads(), threads);
  EXPECT_EQ(openFiles(), descriptors);
}

}  // namespace
