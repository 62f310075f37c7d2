#include "host/channel/source/track_selector.h"

#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/channel/source/media_reader.h"
#include "host/ffmpeg/error.h"
#include "tests/host/clips.h"
#include "tests/support/http_server.h"
#include "tests/support/pipe.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

// A clip of another codec, size and layout.
ClipRecipe OtherClip() {
  ClipRecipe recipe = SmallClip();
  recipe.pictures = "testsrc2=size=240x180:rate=25,format=yuv420p";
  recipe.audio = "sine=frequency=300:sample_rate=44100,aformat=channel_layouts=mono";
  recipe.videoCodec = "mpeg2video";
  recipe.videoOptions = {{"g", "12"}};
  recipe.audioCodec = "mp2";
  return recipe;
}

// An ID3 tag with a PNG of one pixel.
constexpr std::uint8_t kCover[] = {
    0x49, 0x44, 0x33, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x5D, 0x41, 0x50, 0x49, 0x43, 0x00,
    0x00, 0x00, 0x53, 0x00, 0x00, 0x00, 0x69, 0x6D, 0x61, 0x67, 0x65, 0x2F, 0x70, 0x6E, 0x67,
    0x00, 0x03, 0x00, 0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D,
    0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00,
    0x00, 0x00, 0x1F, 0x15, 0xC4, 0x89, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54, 0x78,
    0xDA, 0x63, 0x64, 0x60, 0xF8, 0x5F, 0x0F, 0x00, 0x02, 0x87, 0x01, 0x80, 0xEB, 0x47, 0xBA,
    0x92, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};

TEST(TrackSelector, TakesCoverArtForNoVideo) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.pictures.clear();
  const std::string audio = ReadWholeFile(Write(recipe, folder / "a.aac"));
  const std::string file = std::string(std::begin(kCover), std::end(kCover)) + audio;
  WriteWholeFile(folder / "cover.aac", file);
  // Nor does it count as video that begins later, which would reopen a radio repeatedly.
  const HttpServer server(file, HttpServer::Manner::kIgnoresRanges);
  for (const std::string& source : {(folder / "cover.aac").string(), server.url()}) {
    const auto reader = Opened(Source(source));
    EXPECT_FALSE(reader->info().video) << source;
    EXPECT_EQ(reader->info().noVideoReason, "it has no video");
    const Content content = ReadAll(*reader);
    EXPECT_TRUE(content.pictures.empty());
    EXPECT_GE(content.packets.size(), 40U);
  }
}

TEST(TrackSelector, FollowsAServiceThatContinuesInOtherStreams) {
  const TemporaryFolder folder;
  // Long enough that the change comes after the source was opened.
  ClipRecipe recipe = SmallClip();
  recipe.length = 3 * kSecond;
  const std::string before = ReadWholeFile(Write(recipe, folder / "before.ts"));
  recipe = OtherClip();
  recipe.containerOptions = {{"mpegts_start_pid", "0x200"}, {"tables_version", "3"}};
  const std::string after = ReadWholeFile(Write(recipe, folder / "after.ts"));
  const Pipe pipe(folder / "pipe");
  std::thread writing([&] { std::ofstream(folder / "pipe", std::ios::binary) << before << after; });
  MediaReader::Settings settings = Source(folder / "pipe");
  settings.options.options = {{"probesize", "40000"}};
  MediaReader reader(settings);
  reader.Open();
  EXPECT_EQ(reader.info().video->codec, "h264");
  const Content content = ReadAll(reader);
  writing.join();
  EXPECT_EQ(reader.replacements(), 2U);
  EXPECT_EQ(reader.info().video->codec, "mpeg2video");
  EXPECT_EQ(reader.info().audio->codec, "mp2");
  EXPECT_EQ(reader.audioParameters()->codec_id, AV_CODEC_ID_MP2);
  EXPECT_EQ(content.pictures.front().frame->width, 160);
  EXPECT_EQ(content.pictures.back().frame->width, 240);
  ASSERT_GE(content.pictures.size(), 70U + 25U);
  EXPECT_EQ(content.pictures[content.pictures.size() - 25].frame->width, 240) << "all of the other";
  for (std::size_t i = 1; i < content.pictures.size(); ++i) {
    EXPECT_GT(content.pictures[i].start, content.pictures[i - 1].start);
  }
}

// MP3 begins beside the AAC that was chosen: for the length of one long packet, then for longer.
TEST(TrackSelector, ReadsASecondAudioStreamWhileTheChosenOneIsSilentForSeconds) {
  const TemporaryFolder folder;
  std::string stream;
  const auto append = [&](const char* codec, int from, int seconds) {
    ClipRecipe recipe = SmallClip();
    recipe.pictures.clear();
    recipe.audioCodec = codec;
    recipe.audio = "sine=frequency=440:sample_rate=44100,aformat=channel_layouts=stereo";
    recipe.length = seconds * kSecond;
    recipe.containerOptions = {{"output_ts_offset", std::to_string(from)}};
    constexpr std::size_t kFlvHeader = 13;
    stream +=
        ReadWholeFile(Write(recipe, folder / "part.flv")).substr(stream.empty() ? 0 : kFlvHeader);
  };
  int from = 0;
  for (const auto& [codec, seconds] :
       {std::pair("aac", 12), {"libmp3lame", 1}, {"aac", 1}, {"libmp3lame", 4}, {"aac", 4}}) {
    append(codec, from, seconds);
    from += seconds;
  }
  WriteWholeFile(folder / "all.flv", stream);
  const auto reader = Opened(Source(folder / "all.flv"));
  // Seconds at which another codec is read.
  std::vector<std::pair<std::string, int>> changes;
  ReadEach(*reader, [&](const MediaItem& item) {
    const auto* const packet = std::get_if<AudioPacket>(&item);
    const std::string codec = reader->info().audio->codec;
    if (packet != nullptr && (changes.empty() || changes.back().first != codec)) {
      changes.emplace_back(codec, static_cast<int>((packet->start + kSecond / 2) / kSecond));
    }
  });
  EXPECT_THAT(changes, testing::ElementsAre(std::pair("aac", 0), std::pair("mp3", 14),
                                            std::pair("aac", 18)));
}

TEST(StreamFailover, PrefersTheWantedLanguageAndReturnsToTheChosenStream) {
  StreamFailover failover(0);
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  packet->flags = AV_PKT_FLAG_KEY;
  const auto other = [&](int stream, bool isInWantedLanguage) {
    packet->stream_index = stream;
    return failover.OnOther(*packet, {kSecond / 4, isInWantedLanguage, false});
  };
  for (int i = 0; i < 7; ++i) {
    ASSERT_FALSE(other(1, false) || other(2, true));
  }
  EXPECT_FALSE(other(1, false)) << "the other one is preferred";
  EXPECT_TRUE(other(2, true));
  EXPECT_EQ(failover.TakeKept(2).size(), 8U) << "all since the silence began";
  for (int i = 0; i < 10; ++i) {
    ASSERT_FALSE(other(0, true)) << "it comes and goes";
    failover.OnPacket(kSecond);
  }
  ASSERT_FALSE(other(0, true) || other(0, true) || other(0, true));
  EXPECT_TRUE(other(0, true));

  // However many streams wait, together they keep no more than that.
  StreamFailover many(0);
  ffmpeg::Check(av_new_packet(packet.get(), 1 << 20), "no packet");
  for (int i = 0; i < 4 * 16; ++i) {
    packet->stream_index = 1 + i % 4;
    many.OnOther(*packet, {1, false, false});
  }
  EXPECT_EQ(many.TakeKept(1).size() << 20, StreamFailover::kMaxKeptBytes / 4);
}

// A channel must not stay without audio because it was opened before its audio began.
TEST(TrackSelector, FailsForReopeningWhenAudioBegins) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 3 * kSecond;
  const std::string whole = ReadWholeFile(Write(recipe, folder / "whole.ts"));
  // The same without its audio packets: the audio is announced only.
  std::string mute;
  for (std::size_t at = 0; at < whole.size(); at += 188) {
    const int pid = (whole[at + 1] & 0x1F) << 8 | static_cast<std::uint8_t>(whole[at + 2]);
    if (pid != 0x101) {
      mute += whole.substr(at, 188);
    }
  }
  recipe.audio.clear();
  const std::string alone = ReadWholeFile(Write(recipe, folder / "alone.ts"));
  recipe = SmallClip();
  recipe.containerOptions = {{"tables_version", "3"}};
  const std::string fuller = ReadWholeFile(Write(recipe, folder / "fuller.ts"));
  for (const std::string& stream : {mute + whole, alone + fuller}) {
    const std::filesystem::path path = folder / std::to_string(stream.size());
    Pipe pipe(path);
    pipe.Open();
    pipe.Write(stream);
    MediaReader::Settings settings = Source(path);
    settings.options.options = {{"probesize", "40000"}};
    MediaReader reader(settings);
    reader.Open();
    pipe.Close();
    const bool isAlone = stream.starts_with(alone);
    EXPECT_EQ(reader.info().audioAbsence,
              isAlone ? AudioAbsence::kNotInSource : AudioAbsence::kNotStarted);
    EXPECT_EQ(reader.info().noAudioReason, isAlone ? "it has no audio" : "its audio has not begun");
    EXPECT_THAT([&] { ReadAll(reader); }, testing::Throws<MediaError>(testing::Property(
                                              &MediaError::reason, "its audio begins")));
  }
}

}  // namespace
}  // namespace host
