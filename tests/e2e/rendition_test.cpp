// Sources with several renditions: which one is read, and how it changes.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/frame.h>
}

#include "host/channel/rendition/rendition_reader.h"
#include "host/channel/source/shared_input.h"
#include "tests/e2e/paced_sender.h"
#include "tests/e2e/wall_harness.h"
#include "tests/support/http_server.h"

namespace {

using host::kSecond;
using host::RenditionReader;
using host::Time;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kRenderedFrames = 1000;
constexpr Time kFrame = 400'000;

host::ClipRecipe Counting(int width, const std::string& audio) {
  host::ClipRecipe recipe;
  recipe.name = "Counting";
  recipe.pictures =
      "color=black:size=16x16:rate=25,format=yuv420p,geq=lum='20+2*mod(N,100)':cb=128:cr=128,"
      "scale=" +
      std::to_string(width) + ":" + std::to_string(width * 9 / 16);
  recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}, {"g", "25"}};
  recipe.audio = audio;
  recipe.length = kRenderedFrames * kFrame;
  return recipe;
}

// The server of a master playlist of four sizes, forty seconds of numbered frames.
class Playlists {
 public:
  // audioApart: in a playlist of its own.
  explicit Playlists(bool audioApart = false) {
    const std::string tone = "sine=frequency=440:sample_rate=48000";
    std::string master = "#EXTM3U\n";
    if (audioApart) {
      Write("tone", 0, tone);
      master +=
          "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Tone\",LANGUAGE=\"deu\","
          "DEFAULT=YES,URI=\"tone.m3u8?key=s3cret\"\n";
    }
    for (const int width : {256, 128, 512, 64}) {
      const std::string name = std::to_string(width);
      Write(name, width, audioApart ? "" : tone);
      master += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(width * 1000) +
                ",CODECS=\"avc1.42c01e,mp4a.40.2\",RESOLUTION=" + name + "x" +
                std::to_string(width * 9 / 16) + (audioApart ? ",AUDIO=\"a\"" : "") + "\n" + name +
                ".m3u8?key=s3cret\n";
    }
    WriteWholeFile(folder_ / "master.m3u8", master);
  }

  std::string url() const { return server_.UrlOf("master.m3u8"); }
  // Files whose names begin so are missing from now on, or there again.
  void Break(const std::string& name, bool isBroken) {
    const std::lock_guard guard(lock_);
    if (isBroken) {
      broken_.insert(name);
    } else {
      broken_.erase(name);
    }
  }
  // The renditions whose segments were requested since the last call.
  std::set<std::string> TakeFetched() {
    const std::lock_guard guard(lock_);
    return std::exchange(fetched_, {});
  }

 private:
  void Write(const std::string& name, int width, const std::string& audio) {
    host::ClipRecipe recipe = Counting(width, audio);
    recipe.pictures = width > 0 ? recipe.pictures : "";
    recipe.containerOptions = {{"hls_time", "1"},
                               {"hls_list_size", "0"},
                               {"hls_flags", "omit_endlist"},
                               {"hls_segment_filename", (folder_ / (name + "_%d.ts")).string()}};
    host::WriteClip(recipe, folder_ / (name + ".m3u8"));
  }
  std::optional<std::string> Find(const std::string& path) {
    const std::string name = path.substr(1, path.find('?') - 1);
    const std::lock_guard guard(lock_);
    if (const std::size_t cut = name.find('_'); cut != std::string::npos) {
      fetched_.insert(name.substr(0, cut));
    }
    const bool isBroken = std::any_of(broken_.begin(), broken_.end(),
                                      [&](const auto& each) { return name.starts_with(each); });
    return isBroken ? std::nullopt : std::optional(ReadWholeFile(folder_ / name));
  }

  const TemporaryFolder folder_;
  std::mutex lock_;
  std::set<std::string> broken_;   // guarded by lock_
  std::set<std::string> fetched_;  // guarded by lock_
  const HttpServer server_{[this](const std::string& path) { return Find(path); }};
};

// What a channel's reader gets of such a source.
struct Reading {
  explicit Reading(std::vector<std::string> sources, host::WindowSize window,
                   std::shared_ptr<host::SharedInputs> inputs = nullptr)
      : wanted(std::make_shared<host::WantedSize>(window)) {
    host::config::Channel channel;
    channel.source = sources.front();
    channel.options.openLimit = 5 * kSecond;
    channel.options.readLimit = 2 * kSecond;
    channel.options.options = {{"live_start_index", "0"}};
    for (const std::string& each : sources.size() > 1 ? sources : std::vector<std::string>()) {
      channel.sources.push_back({each});
    }
    reader = std::make_unique<RenditionReader>(
        RenditionReader::Settings{channel, nullptr, std::move(inputs), true}, wanted, renditions);
    reader->Open();
    NoteChange();
  }

  void NoteChange() {
    if (const auto change = reader->TakeChange()) {
      changes.push_back(std::to_string(change->width) + ": " + change->reason);
      EXPECT_THAT(change->source, testing::Not(HasSubstr("s3cret")));
    }
  }
  // Reads until frames of that width come; pace: after each frame, as a wall would.
  void ReadUntil(int width, std::chrono::milliseconds pace = std::chrono::milliseconds(5)) {
    for (int frames = 0, right = 0; frames < kRenderedFrames;) {
      const host::MediaItem item = reader->Read();
      NoteChange();
      if (const auto* const frame = std::get_if<host::DecodedFrame>(&item)) {
        starts.push_back(frame->start);
        numbers.push_back(e2e::FrameNumber(frame->frame->data[0][0]));
        ++frames;
        if (frame->frame->width == width && ++right > 30) {
          return;
        }
        std::this_thread::sleep_for(pace);
      } else if (const auto* const packet = std::get_if<host::AudioPacket>(&item)) {
        packets.push_back(packet->start);
        EXPECT_EQ(packet->packet->pts, packet->start);
      } else if (std::holds_alternative<host::EndOfMedia>(item)) {
        break;
      }
    }
    FAIL() << "no frame of the width " << width << " came";
  }
  // No frame missing, none twice, all at their times; likewise of the audio.
  void ExpectWhole() const {
    for (std::size_t i = 1; i < starts.size(); ++i) {
      ASSERT_EQ(numbers[i], (numbers[i - 1] + 1) % 100) << i;
      ASSERT_NEAR(starts[i] - starts[i - 1], kFrame, 2) << i;
    }
    ExpectWholeAudio();
  }
  void ExpectWholeAudio() const {
    ASSERT_GT(packets.size(), starts.size());
    for (std::size_t i = 1; i < packets.size(); ++i) {
      ASSERT_NEAR(packets[i] - packets[i - 1], kSecond * 1024 / 48000, 300) << i;
    }
  }

  const std::shared_ptr<host::WantedSize> wanted;
  host::RenditionSet renditions{{1, 1}};
  std::unique_ptr<RenditionReader> reader;
  std::vector<std::string> changes;
  std::vector<Time> starts;
  std::vector<int> numbers;
  std::vector<Time> packets;
};

TEST(Renditions, AHostilePlaylistLeadsNowhereElse) {
  const std::string kStream = "#EXT-X-STREAM-INF:BANDWIDTH=1000,RESOLUTION=64x36\n";
  const std::string kUrl = "http://user:pw@host:81/a/b/master.m3u8?token=/x";
  const auto addresses = [&](const std::string& lines, const std::string& location) {
    std::vector<std::string> found;
    for (const host::PlaylistVariant& each : host::ReadVariants("#EXTM3U\n" + lines, location)
                                                 .value_or(std::vector<host::PlaylistVariant>())) {
      found.push_back(each.source + each.playlist);
    }
    return found;
  };
  for (const auto& [uri, resolved] : {std::pair("c.m3u8?k=/../v", "/a/b/c.m3u8?k=/../v"),
                                      {"../.././../c.m3u8", "/c.m3u8"},
                                      {"/c/./d", "/c/d"},
                                      {"?v=2", "/a/b/master.m3u8?v=2"}}) {
    EXPECT_THAT(addresses(kStream + uri + "\n", kUrl),
                ElementsAre(std::string("http://user:pw@host:81") + resolved));
  }
  EXPECT_THAT(addresses(kStream + "HTTPS://other/c\r\n", kUrl), ElementsAre("HTTPS://other/c"));
  EXPECT_THAT(addresses(kStream + "v/c.m3u8", "lists/m.m3u8"), ElementsAre("lists/v/c.m3u8"));
  const std::string kAudio = "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",URI=\"";
  for (const std::string& lines :
       {kStream + "file:///etc/passwd", kStream + "concat:a|b", kStream + "ftp://h/c",
        kStream + "{$x}.m3u8", kStream + std::string(5000, 'a'), kStream,
        kStream + "c\n#EXTINF:4,\nd.ts", kStream + "c\n" + kAudio + "file:x\"",
        kStream + "c\n" + kAudio + "x", kStream + "c\x01",
        std::string("#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=99999x36\nc"),
        std::string("#EXT-X-STREAM-INF:BANDWIDTH=-1\nc"),
        std::string("#EXT-X-STREAM-INF:RESOLUTION=\"\nc"),
        std::string("#EXT-X-STREAM-INF:BANDWIDTH=1,CODECS=\"mp4a.40.2\"\nc")}) {
    EXPECT_THAT(addresses(lines + "\n", kUrl), ElementsAre()) << lines;
  }
  for (const char* const uri : {"/etc/c.m3u8", "../c.m3u8", "v/../../c.m3u8", "http://host/c"}) {
    EXPECT_THAT(addresses(kStream + uri + "\n", "lists/m.m3u8"), ElementsAre()) << uri;
  }
  std::string many;
  for (std::size_t i = 0; i <= host::kMaxPlaylistVariants; ++i) {
    many += kStream + "c\n";
  }
  EXPECT_THAT(addresses(many, kUrl), ElementsAre());
}

TEST(Renditions, OfAPlaylistTheRightOneIsReadAndChangesWithoutAGap) {
  for (const bool audioApart : {false, true}) {
    Playlists playlists(audioApart);
    const auto fetched = [&](const std::string& name) {
      std::set<std::string> all{name};
      if (audioApart) {
        all.insert("tone");
      }
      return all;
    };
    Reading reading({playlists.url()}, {120, 68});
    reading.ReadUntil(128);
    EXPECT_EQ(playlists.TakeFetched(), fetched("128"));
    EXPECT_EQ(reading.reader->info().audio.has_value(), true);
    reading.wanted->Set({2000, 1000});
    reading.ReadUntil(512);
    playlists.TakeFetched();
    reading.wanted->Set({64, 64});
    reading.ReadUntil(64);
    std::set<std::string> last = playlists.TakeFetched();
    last.erase("512");  // which was read until then
    EXPECT_EQ(last, fetched("64"));
    reading.ExpectWhole();
    EXPECT_THAT(reading.changes,
                ElementsAre("128: for a window of 120x68", "512: for a window of 2000x1000",
                            "64: for a window of 64x64"));
    EXPECT_GT(reading.reader->counts().bytes, 100'000U);
  }
}

// It leaves the rendition that the other window reads, and joins it again.
TEST(Renditions, OneWindowOfASharedPlaylistChangesWithoutAGapInEither) {
  const Playlists playlists;
  const auto inputs = std::make_shared<host::SharedInputs>();
  Reading changing({playlists.url()}, {120, 68}, inputs);
  Reading other({playlists.url()}, {120, 68}, inputs);
  for (const auto& [window, width] :
       {std::pair(host::WindowSize{120, 68}, 128), {{500, 280}, 512}, {{120, 68}, 128}}) {
    changing.wanted->Set(window);
    changing.ReadUntil(width);
    other.ReadUntil(128);
  }
  changing.ExpectWhole();
  other.ExpectWhole();
  EXPECT_EQ(changing.changes.size(), 3U);
}

TEST(Renditions, OneThatFailsIsReplacedAndComesBack) {
  Playlists playlists;
  playlists.Break("128", true);
  Reading reading({playlists.url()}, {120, 68});
  reading.ReadUntil(256);
  playlists.Break("128", false);
  reading.ReadUntil(128);  // it is tried again
  playlists.Break("256", true);
  playlists.Break("128", true);
  reading.ReadUntil(512);
  EXPECT_THAT(reading.changes,
              ElementsAre(HasSubstr("256: another one failed"), "128: for a window of 120x68",
                          HasSubstr("512: another one failed")));
}

class RenditionWallTest : public e2e::WallTest {};

TEST_F(RenditionWallTest, AWindowShowsEveryFrameWhenItsSizeChanges) {
  const Playlists playlists;
  e2e::TestWall wall(160, 96);
  wall.AddChannel(playlists.url(), {0, 0, 128, 72});
  wall.wall().channels.back().options.options = {{"live_start_index", "0"}};
  std::vector<std::pair<Time, int>> shown;  // the composition thread's until the wall has stopped
  const auto session = wall.MakeLive([&](const ComPtr<IMediaSample>& sample, Time time) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    shown.emplace_back(time, e2e::FrameNumber(pixels[36 * 160 + 64]));
  });
  session->Start();
  // The size, and which renditions have been read by then.
  for (const auto& [width, read] :
       {std::pair(128, host::Lines{"128"}), {512, {"128", "512"}}, {64, {"128", "512", "64"}}}) {
    session->channel(0).WantSize(width, width * 9 / 16);
    const host::Lines expected = read;
    ASSERT_TRUE(WaitUntil("another rendition is read", [&] {
      return wall.channels().Renditions("master") == expected;
    })) << testing::PrintToString(wall.channels().Renditions("master"));
    const Time end = session->now() + 2 * kSecond;
    ASSERT_TRUE(WaitUntil("it is shown", [&] { return session->now() >= end; }));
  }
  session->Stop();
  session->Finish();
  std::size_t checked = 0;
  for (std::size_t i = 1; i < shown.size(); ++i) {
    const auto& [time, number] = shown[i];
    const auto& [timeBefore, numberBefore] = shown[i - 1];
    if (checked > 0 || numberBefore > 0) {
      ASSERT_EQ((number - numberBefore + 100) % 100, (time - timeBefore) / kFrame) << time;
      ++checked;
    }
  }
  EXPECT_GT(checked, 100U);
  EXPECT_EQ(wall.channels().States("master"), host::Lines{"live"});
}

// Two streams of a camera have clocks and timestamps of their own, and sizes that are learnt.
TEST(Renditions, TwoStreamsOfACameraFollowEachOtherWithoutAGap) {
  const TemporaryFolder folder;
  std::vector<std::unique_ptr<e2e::PacedSender>> senders;
  for (const int width : {256, 128}) {
    host::ClipRecipe recipe = Counting(width, "sine=frequency=440:sample_rate=48000");
    recipe.length = 20 * kSecond;
    recipe.containerOptions = {{"output_ts_offset", std::to_string(width)}};
    const auto file = folder / (std::to_string(width) + ".ts");
    host::WriteClip(recipe, file);
    senders.push_back(std::make_unique<e2e::PacedSender>(ReadWholeFile(file),
                                                         std::chrono::milliseconds(20'000), 1.0));
  }
  Reading reading({senders[0]->url(), senders[1]->url()}, {120, 68});
  const auto read = [&](int width) { reading.ReadUntil(width, std::chrono::milliseconds(0)); };
  read(128);
  reading.wanted->Set({256, 144});
  read(256);
  for (std::size_t i = 1; i < reading.starts.size(); ++i) {
    ASSERT_NEAR(reading.starts[i] - reading.starts[i - 1], kFrame, kFrame / 10) << i;
  }
  reading.ExpectWholeAudio();
}

}  // namespace
