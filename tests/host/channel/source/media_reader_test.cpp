#include "host/channel/source/media_reader.h"

#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "tests/host/clips.h"
#include "tests/support/http_server.h"
#include "tests/support/pipe.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

// The kind of failure and the reason; none when the source opens.
std::optional<std::pair<MediaError::Kind, std::string>> OpenFailure(
    MediaReader::Settings settings) {
  MediaReader reader(std::move(settings));
  try {
    reader.Open();
  } catch (const MediaError& error) {
    return std::make_pair(error.kind(), error.reason());
  }
  return {};
}

void ExpectSteady(const std::vector<DecodedFrame>& pictures, Time tolerance) {
  for (std::size_t i = 1; i < pictures.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(pictures[i].start - pictures[i - 1].start), 400'000,
                static_cast<double>(tolerance))
        << i;
  }
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

TEST(MediaReader, TakesCoverArtForNoVideo) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.pictures.clear();
  const std::string audio = ReadWholeFile(Write(recipe, folder / "a.aac"));
  const std::string file = std::string(std::begin(kCover), std::end(kCover)) + audio;
  WriteWholeFile(folder / "cover.aac", file);
  // Nor does it begin later, which would open a radio again and again.
  const HttpServer server(file, HttpServer::Manner::kIgnoresRanges);
  for (const std::string& source : {(folder / "cover.aac").string(), server.url()}) {
    MediaReader reader(Source(source));
    reader.Open();
    EXPECT_FALSE(reader.info().video) << source;
    EXPECT_EQ(reader.info().noVideoReason, "it has no video");
    const Content content = ReadAll(reader);
    EXPECT_TRUE(content.pictures.empty());
    EXPECT_GE(content.packets.size(), 40U);
  }
}

TEST(MediaReader, SaysWhyASourceCannotBeOpened) {
  const TemporaryFolder folder;
  using Kind = MediaError::Kind;
  WriteWholeFile(folder / "notes.txt", std::string(5000, 'x'));
  WriteWholeFile(folder / "empty.mp4", "");
  const std::string whole = ReadWholeFile(Write(SmallClip(), folder / "whole.mp4"));
  WriteWholeFile(folder / "cut.mp4", whole.substr(0, whole.size() / 2));
  for (const auto& [name, kind] : {std::pair("nothing.mp4", Kind::kNotFound),
                                   {"notes.txt", Kind::kNotMedia},
                                   {"empty.mp4", Kind::kNotMedia},
                                   {"cut.mp4", Kind::kNotMedia},
                                   {".", Kind::kFailed}}) {
    EXPECT_EQ(OpenFailure(Source(folder / name))->first, kind) << name;
  }
  MediaReader::Settings settings = Source(folder / "whole.mp4");
  settings.wantVideo = false;
  settings.options.audio.track = 3;
  EXPECT_EQ(
      OpenFailure(settings),
      std::pair(Kind::kNoStreams, std::string("nothing to show: video is switched off, and it "
                                              "has no audio track 3 (of 1)")));
}

TEST(MediaReader, ReadsFilesOfServersThatKnowNoByteRangesAsStreams) {
  using Manner = HttpServer::Manner;
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 8 * kSecond;  // more than what is kept of the past
  const std::string indexLast = ReadWholeFile(Write(recipe, folder / "last.mp4"));
  recipe.containerOptions = {{"movflags", "+faststart"}};
  const std::string indexFirst = ReadWholeFile(Write(recipe, folder / "first.mp4"));
  const std::string remedy =
      "its index comes behind its data, but it can only be read from its beginning: write it with "
      "the index first (ffmpeg: -movflags +faststart) or use a server with byte ranges";
  const auto failureOf = [](const std::string& url) {
    MediaReader reader(Source(url));
    try {
      reader.Open();
      EXPECT_EQ(ReadAll(reader).pictures.size(), 200U);
      return std::string("none");
    } catch (const MediaError& error) {
      return error.reason();
    }
  };
  for (const Manner manner :
       {Manner::kIgnoresRanges, Manner::kPromisesRanges, Manner::kRefusesRanges}) {
    const HttpServer plays(indexFirst, manner);
    EXPECT_EQ(failureOf(plays.url()), "none") << static_cast<int>(manner);
    const HttpServer cannot(indexLast, manner);
    EXPECT_EQ(failureOf(cannot.url()), remedy) << static_cast<int>(manner);
  }
  const HttpServer large(indexLast, Manner::kStalls);
  MediaReader::Settings settings = Source(large.url());
  settings.options.openLimit = 300 * kMillisecond;
  EXPECT_EQ(OpenFailure(settings)->second, remedy);
}

// FFmpeg's demuxer of MP4 remembers every packet: over months others take its place.
TEST(MediaReader, ChangesTheDemuxerOfAnEndlessSourceWithoutAGap) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 12 * kSecond;
  recipe.containerOptions = {{"movflags", "frag_keyframe+empty_moov+default_base_moof"}};
  const std::string clip = ReadWholeFile(Write(recipe, folder / "a.mp4"));
  recipe.containerOptions = {{"hls_segment_type", "fmp4"},
                             {"hls_time", "1"},
                             {"hls_list_size", "0"},
                             {"hls_flags", "omit_endlist"}};
  const std::filesystem::path list = Write(recipe, folder / "a.m3u8");
  Pipe pipe(folder / "pipe");
  // Times of pictures and packets, in their order.
  const auto read = [](MediaReader& reader) {
    std::vector<Time> times;
    try {
      reader.Open();
      for (MediaItem item = reader.Read(); !std::holds_alternative<EndOfMedia>(item);
           item = reader.Read()) {
        if (const auto* const picture = std::get_if<DecodedFrame>(&item)) {
          times.push_back(picture->start);
          // A list is read as fast as it can be: the next demuxer has to come beside it.
          std::this_thread::sleep_for(std::chrono::milliseconds(4));
        } else if (const auto* const packet = std::get_if<AudioPacket>(&item)) {
          times.push_back(packet->start);
        }
      }
    } catch (const MediaError& error) {
      EXPECT_EQ(error.kind(), MediaError::Kind::kTimedOut) << error.what();
    }
    return times;
  };
  for (const std::filesystem::path& source : {folder / "pipe", list}) {
    MediaReader::Settings settings = Source(source);
    settings.options.readLimit = 700 * kMillisecond;
    settings.options.options = {{"live_start_index", "0"}};
    std::vector<Time> expected;
    for (const int most : {1'000'000, 60}) {
      std::thread writing([&] {
        if (source != list) {
          std::ofstream(source, std::ios::binary) << clip;
        }
      });
      settings.maxIndexEntries = most;
      MediaReader reader(settings);
      const std::vector<Time> times = read(reader);
      writing.join();
      EXPECT_EQ(reader.damagedPackets(), 0U);
      if (expected.empty()) {
        EXPECT_EQ(reader.exchanges(), 0U);
        EXPECT_GE(times.size(), 298U + 560U);
        expected = times;
      } else {
        EXPECT_GE(reader.exchanges(), source == list ? 1U : 2U) << source;
        EXPECT_EQ(times, expected) << source;
      }
    }
  }
}

TEST(MediaReader, BeginsAFileAgainWithoutAGapOnTheClock) {
  const TemporaryFolder folder;
  for (const char* name : {"a.mkv", "a.ts", "a.mp4"}) {
    MediaReader::Settings settings = Source(Write(SmallClip(), folder / name));
    settings.live = true;
    MediaReader reader(settings);
    reader.Open();
    std::vector<DecodedFrame> pictures;
    Time lastAudio = -kSecond;
    while (pictures.size() < 80) {
      MediaItem item = reader.Read();
      if (auto* picture = std::get_if<DecodedFrame>(&item)) {
        EXPECT_FALSE(picture->discontinuity);
        pictures.push_back(std::move(*picture));
      } else if (auto* packet = std::get_if<AudioPacket>(&item)) {
        EXPECT_GE(packet->start, lastAudio);
        lastAudio = packet->start;
      }
    }
    EXPECT_EQ(reader.repeats(), 3U) << name;
    // The audio may be longer than the picture by a packet: the file is as long as the longer.
    ExpectSteady(pictures, 500'000);
    EXPECT_NEAR(static_cast<double>(pictures.back().start), 79 * 400'000, 1'500'000) << name;
  }
}

// Both fail, so that the source is opened again: what is there now may be another clip, or become
// one.
TEST(MediaReader, FailsForReopeningWhenARepeatedFileWasWrittenAgainOrGivesNothing) {
  const TemporaryFolder folder;
  const auto failure = [](const std::filesystem::path& file, const std::string& overwriteBy) {
    MediaReader::Settings settings = Source(file);
    settings.live = true;
    MediaReader reader(settings);
    reader.Open();
    if (!overwriteBy.empty()) {
      reader.Read();
      WriteWholeFile(file, overwriteBy);
    }
    try {
      // It may still give what was read ahead, of the former content.
      for (int items = 0; items < 1000; ++items) {
        if (std::holds_alternative<EndOfMedia>(reader.Read())) {
          return std::string("ended");
        }
      }
      return std::string("repeats");
    } catch (const MediaError& error) {
      return error.reason();
    }
  };
  ClipRecipe longer = SmallClip();
  longer.length = 3 * kSecond;
  for (const std::string extension : {".ts", ".mkv", ".mp4"}) {
    const std::string other = ReadWholeFile(Write(longer, folder / ("other" + extension)));
    const auto file = folder / ("a" + extension);
    for (const std::string& content : {other, std::string("no clip")}) {
      const std::string reason = failure(Write(SmallClip(), file), content);
      EXPECT_TRUE(reason != "ended" && reason != "repeats") << extension << " " << reason;
    }
  }
  const std::string whole = ReadWholeFile(folder / "other.mkv");
  WriteWholeFile(folder / "empty.mkv", whole.substr(0, whole.find("\x1F\x43\xB6\x75") + 12));
  EXPECT_EQ(failure(folder / "empty.mkv", ""), "nothing in it can be read");
}

TEST(MediaReader, GoesOnThroughAWrapAndAJumpOfTheTimeStamps) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.videoOptions = {{"bf", "0"}};
  // The 33 bits of a transport stream end at 95443.7 s.
  recipe.containerOptions = {{"output_ts_offset", "95443.2"}};
  MediaReader wrapping(Source(Write(recipe, folder / "wrap.ts")));
  wrapping.Open();
  const Content wrapped = ReadAll(wrapping);
  ASSERT_EQ(wrapped.pictures.size(), 25U);
  ExpectSteady(wrapped.pictures, 200);

  // A sender that starts again: the same stream with timestamps of two hours earlier, without a
  // pause.
  recipe.containerOptions = {{"output_ts_offset", "9000"}};
  const std::string later = ReadWholeFile(Write(recipe, folder / "later.ts"));
  recipe.containerOptions = {{"output_ts_offset", "1800"}};
  const std::string earlier = ReadWholeFile(Write(recipe, folder / "earlier.ts"));
  WriteWholeFile(folder / "jump.ts", later + earlier);
  MediaReader jumping(Source(folder / "jump.ts"));
  jumping.Open();
  const Content jumped = ReadAll(jumping);
  ASSERT_EQ(jumped.pictures.size(), 50U);
  ExpectSteady(jumped.pictures, 300'000);
  for (std::size_t i = 0; i < jumped.pictures.size(); ++i) {
    EXPECT_EQ(jumped.pictures[i].discontinuity, i == 25) << i;
  }
  for (std::size_t i = 1; i < jumped.packets.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(jumped.packets[i].start - jumped.packets[i - 1].start), 213'333,
                300'000);
  }
}

// Audio and picture are as far apart after damage as they were before it.
TEST(MediaReader, DamageDoesNotTearAudioFromPicture) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 16 * kSecond;
  const std::string whole = ReadWholeFile(Write(recipe, folder / "whole.ts"));
  const auto distanceAtTheEnd = [&](const std::string& name) -> std::optional<Time> {
    MediaReader reader(Source(folder / name));
    reader.Open();
    try {
      const Content content = ReadAll(reader);
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
      EXPECT_NEAR(static_cast<double>(*distance), static_cast<double>(*undamaged), kSecond / 10.0)
          << "seed " << seed;
    }
  }
  EXPECT_GE(read, static_cast<int>(kTries) * 3 / 4);
}

// H.264 says it in an SEI message before a keyframe.
TEST(MediaReader, GivesEachFrameItsOwnOrientation) {
  constexpr char kQuarterTurn[] = "\0\0\0\x01\x06\x2F\x03\x08\0\x09\x80";
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.audio.clear();
  const std::string stream = ReadWholeFile(Write(recipe, folder / "a.h264"));
  WriteWholeFile(folder / "b.h264",
                 stream + std::string(kQuarterTurn, sizeof kQuarterTurn - 1) + stream + stream);
  MediaReader reader(Source(folder / "b.h264"));
  reader.Open();
  const Content content = ReadAll(reader);
  ASSERT_EQ(content.pictures.size(), 75U);
  for (std::size_t i = 0; i < 75; ++i) {
    EXPECT_EQ(content.pictures[i].orientation.rotation, i / 25 == 1 ? 270 : 0) << i;
  }
}

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

TEST(MediaReader, FollowsAServiceThatGoesOnInOtherStreams) {
  const TemporaryFolder folder;
  // Long enough that the change is not seen while the source is opened.
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
TEST(MediaReader, ReadsASecondAudioStreamWhileTheChosenOneIsSilentForSeconds) {
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
  append("aac", 0, 12);
  append("libmp3lame", 12, 1);
  append("aac", 13, 1);
  append("libmp3lame", 14, 4);
  append("aac", 18, 4);
  WriteWholeFile(folder / "all.flv", stream);
  MediaReader reader(Source(folder / "all.flv"));
  reader.Open();
  // Seconds at which another codec is read.
  std::vector<std::pair<std::string, int>> changes;
  for (MediaItem item = reader.Read(); !std::holds_alternative<EndOfMedia>(item);
       item = reader.Read()) {
    const auto* const packet = std::get_if<AudioPacket>(&item);
    if (packet != nullptr &&
        (changes.empty() || changes.back().first != reader.info().audio->codec)) {
      changes.emplace_back(reader.info().audio->codec,
                           static_cast<int>((packet->start + kSecond / 2) / kSecond));
    }
  }
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
}

// A channel is not to stay mute because it was opened before its audio began.
TEST(MediaReader, FailsForReopeningWhenAudioBegins) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 3 * kSecond;
  const std::string whole = ReadWholeFile(Write(recipe, folder / "whole.ts"));
  // The same without the packets of its audio: it is announced only.
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
    EXPECT_EQ(reader.info().audioAbsence,
              stream.starts_with(alone) ? AudioAbsence::kNotInSource : AudioAbsence::kNotStarted);
    EXPECT_EQ(reader.info().noAudioReason,
              stream.starts_with(alone) ? "it has no audio" : "its audio has not begun");
    try {
      ReadAll(reader);
      ADD_FAILURE() << "stays mute";
    } catch (const MediaError& error) {
      EXPECT_EQ(error.reason(), "its audio begins");
    }
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

TEST(MediaReader, BeginsInTheMiddleOfAGopWithTheNextKeyframe) {
  const TemporaryFolder folder;
  using Options = decltype(ClipRecipe::videoOptions);
  const std::vector<std::pair<const char*, Options>> codecs{
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
    MediaReader whole(Source(folder / "whole.ts"));
    MediaReader cut(Source(folder / "cut.ts"));
    whole.Open();
    cut.Open();
    const std::vector<DecodedFrame> all = ReadAll(whole).pictures;
    const std::vector<DecodedFrame> shown = ReadAll(cut).pictures;
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
