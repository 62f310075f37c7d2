#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/channel/source/media_decoder.h"
#include "host/channel/source/media_input.h"
#include "host/channel/source/media_reader.h"
#include "tests/host/clips.h"
#include "tests/support/http_server.h"
#include "tests/support/pipe.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using Kind = MediaError::Kind;

// The error of a source that cannot be opened, or that fails in `read`.
template <typename Read>
std::pair<Kind, std::string> Failure(MediaReader::Settings settings, Read read) {
  try {
    read(*Opened(std::move(settings)));
  } catch (const MediaError& error) {
    return {error.kind(), error.reason()};
  }
  return {Kind::kFailed, "none"};
}
std::pair<Kind, std::string> OpenFailure(MediaReader::Settings settings) {
  return Failure(std::move(settings), [](MediaReader&) {});
}

TEST(MediaInput, SaysWhyASourceCannotBeOpened) {
  const TemporaryFolder folder;
  WriteWholeFile(folder / "notes.txt", std::string(5000, 'x'));
  WriteWholeFile(folder / "empty.mp4", "");
  const std::string whole = ReadWholeFile(Write(SmallClip(), folder / "whole.mp4"));
  WriteWholeFile(folder / "cut.mp4", whole.substr(0, whole.size() / 2));
  for (const auto& [name, kind] : {std::pair("nothing.mp4", Kind::kNotFound),
                                   {"notes.txt", Kind::kNotMedia},
                                   {"empty.mp4", Kind::kNotMedia},
                                   {"cut.mp4", Kind::kNotMedia},
                                   {".", Kind::kFailed}}) {
    const auto failure = OpenFailure(Source(folder / name));
    EXPECT_TRUE(failure.first == kind && failure.second != "none") << name;
  }
  MediaReader::Settings settings = Source(folder / "whole.mp4");
  settings.wantVideo = false;
  settings.options.audio.track = 3;
  EXPECT_EQ(OpenFailure(settings).second,
            "nothing to show: video is switched off, and it has no audio track 3 (of 1)");
}

TEST(MediaInput, ReadsFilesOfServersThatKnowNoByteRangesAsStreams) {
  using Manner = HttpServer::Manner;
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 8 * kSecond;  // more than is buffered
  const std::string indexLast = ReadWholeFile(Write(recipe, folder / "last.mp4"));
  recipe.containerOptions = {{"movflags", "+faststart"}};
  const std::string indexFirst = ReadWholeFile(Write(recipe, folder / "first.mp4"));
  const std::string remedy =
      "its index comes behind its data, but it can only be read from its beginning: write it with "
      "the index first (ffmpeg: -movflags +faststart) or use a server with byte ranges";
  const auto failureOf = [](const HttpServer& server) {
    return Failure(Source(server.url()),
                   [](MediaReader& reader) { EXPECT_EQ(ReadAll(reader).pictures.size(), 200U); })
        .second;
  };
  for (const Manner manner :
       {Manner::kIgnoresRanges, Manner::kPromisesRanges, Manner::kRefusesRanges}) {
    EXPECT_EQ(failureOf({indexFirst, manner}), "none") << static_cast<int>(manner);
    EXPECT_EQ(failureOf({indexLast, manner}), remedy) << static_cast<int>(manner);
  }
  const HttpServer large(indexLast, Manner::kStalls);
  MediaReader::Settings settings = Source(large.url());
  settings.options.openLimit = 300 * kMillisecond;
  EXPECT_EQ(OpenFailure(settings).second, remedy);
}

// FFmpeg's MP4 demuxer remembers every packet, so it is replaced from time to time.
TEST(MediaInput, ChangesTheDemuxerOfAnEndlessSourceWithoutAGap) {
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
  // Times of frames and packets, in their order.
  const auto read = [](MediaReader& reader) {
    std::vector<Time> times;
    try {
      reader.Open();
      ReadEach(reader, [&](const MediaItem& item) {
        if (const auto* const decoded = std::get_if<DecodedFrame>(&item)) {
          times.push_back(decoded->start);
          // A playlist is read at full speed: the replacement has to catch up with it.
          std::this_thread::sleep_for(std::chrono::milliseconds(4));
        } else if (const auto* const packet = std::get_if<AudioPacket>(&item)) {
          times.push_back(packet->start);
        }
      });
    } catch (const MediaError& error) {
      EXPECT_EQ(error.kind(), Kind::kTimedOut) << error.what();
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

TEST(MediaInput, BeginsAFileAgainWithoutAGapOnTheClock) {
  const TemporaryFolder folder;
  for (const char* name : {"a.mkv", "a.ts", "a.mp4"}) {
    MediaReader::Settings settings = Source(Write(SmallClip(), folder / name));
    settings.live = true;
    const auto reader = Opened(settings);
    std::vector<DecodedFrame> shown;
    Time lastAudio = -kSecond;
    while (shown.size() < 80) {
      MediaItem item = reader->Read();
      if (auto* decoded = std::get_if<DecodedFrame>(&item)) {
        EXPECT_FALSE(decoded->discontinuity);
        shown.push_back(std::move(*decoded));
      } else if (auto* packet = std::get_if<AudioPacket>(&item)) {
        EXPECT_GE(packet->start, lastAudio);
        lastAudio = packet->start;
      }
    }
    EXPECT_EQ(reader->repeats(), 3U) << name;
    // The audio may be longer than the video by a packet: the file is as long as the longer.
    ExpectSteady(shown, 500'000);
    EXPECT_NEAR(shown.back().start, 79 * 400'000, 1'500'000) << name;
  }
}

// Both fail, so that the source is opened again: the file may be another clip now, or become one.
TEST(MediaInput, FailsForReopeningWhenARepeatedFileWasWrittenAgainOrGivesNothing) {
  const TemporaryFolder folder;
  const auto failure = [](const std::filesystem::path& file, const std::string& overwriteBy) {
    MediaReader::Settings settings = Source(file);
    settings.live = true;
    return Failure(settings,
                   [&](MediaReader& reader) {
                     if (!overwriteBy.empty()) {
                       reader.Read();
                       WriteWholeFile(file, overwriteBy);
                     }
                     // What was read ahead of the former content may still come.
                     for (int items = 0; items < 1000; ++items) {
                       if (std::holds_alternative<EndOfMedia>(reader.Read())) {
                         return;
                       }
                     }
                   })
        .second;
  };
  ClipRecipe longer = SmallClip();
  longer.length = 3 * kSecond;
  for (const std::string extension : {".ts", ".mkv", ".mp4"}) {
    const std::string other = ReadWholeFile(Write(longer, folder / ("other" + extension)));
    const auto file = folder / ("a" + extension);
    for (const std::string& content : {other, std::string("no clip")}) {
      EXPECT_NE(failure(Write(SmallClip(), file), content), "none") << extension;
    }
  }
  const std::string whole = ReadWholeFile(folder / "other.mkv");
  WriteWholeFile(folder / "empty.mkv", whole.substr(0, whole.find("\x1F\x43\xB6\x75") + 12));
  EXPECT_EQ(failure(folder / "empty.mkv", ""), "nothing in it can be read");
}

TEST(MediaDecoder, ContinuesThroughAWrapAndAJumpOfTheTimestamps) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.videoOptions = {{"bf", "0"}};
  // The 33 bits of a transport stream end at 95443.7 s.
  const auto at = [&](const char* offset) {
    recipe.containerOptions = {{"output_ts_offset", offset}};
    return ReadWholeFile(Write(recipe, folder / "wrap.ts"));
  };
  // A sender that restarts: timestamps two hours earlier, without a pause.
  WriteWholeFile(folder / "jump.ts", at("9000") + at("1800"));
  at("95443.2");
  const Content wrapped = ReadFile(folder / "wrap.ts");
  ASSERT_EQ(wrapped.pictures.size(), 25U);
  ExpectSteady(wrapped.pictures, 200);
  const Content jumped = ReadFile(folder / "jump.ts");
  ASSERT_EQ(jumped.pictures.size(), 50U);
  ExpectSteady(jumped.pictures, 300'000);
  for (std::size_t i = 0; i < jumped.pictures.size(); ++i) {
    EXPECT_EQ(jumped.pictures[i].discontinuity, i == 25) << i;
  }
  for (std::size_t i = 1; i < jumped.packets.size(); ++i) {
    EXPECT_NEAR(jumped.packets[i].start - jumped.packets[i - 1].start, 213'333, 300'000);
  }
}

// Audio and video are as far apart after damage as before it.
TEST(MediaDecoder, DamageDoesNotMakeAudioAndVideoDiverge) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.length = 16 * kSecond;
  const std::string whole = ReadWholeFile(Write(recipe, folder / "whole.ts"));
  const auto distanceAtTheEnd = [&](const std::string& name) -> std::optional<Time> {
    try {
      const Content content = ReadFile(folder / name);
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
    // Three bits in a fifth of the datagrams of a quarter of the clip.
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
      EXPECT_NEAR(*distance, *undamaged, kSecond / 10) << "seed " << seed;
    }
  }
  EXPECT_GE(read, static_cast<int>(kTries) * 3 / 4);
}

// H.264 has the orientation in an SEI message before a keyframe.
TEST(MediaDecoder, GivesEachFrameItsOwnOrientation) {
  constexpr char kQuarterTurn[] = "\0\0\0\x01\x06\x2F\x03\x08\0\x09\x80";
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.audio.clear();
  const std::string stream = ReadWholeFile(Write(recipe, folder / "a.h264"));
  WriteWholeFile(folder / "b.h264",
                 stream + std::string(kQuarterTurn, sizeof kQuarterTurn - 1) + stream + stream);
  const Content content = ReadFile(folder / "b.h264");
  ASSERT_EQ(content.pictures.size(), 75U);
  for (std::size_t i = 0; i < 75; ++i) {
    EXPECT_EQ(content.pictures[i].orientation.rotation, i / 25 == 1 ? 270 : 0) << i;
  }
}

// The luma rows of the frame.
std::string LumaOf(const DecodedFrame& decoded) {
  const AVFrame& frame = *decoded.frame;
  std::string luma;
  for (int y = 0; y < frame.height; ++y) {
    luma.append(reinterpret_cast<const char*>(frame.data[0] + y * frame.linesize[0]),
                static_cast<std::size_t>(frame.width));
  }
  return luma;
}

TEST(MediaDecoder, BeginsInTheMiddleOfAGopWithTheNextKeyframe) {
  const TemporaryFolder folder;
  const std::vector<std::pair<const char*, decltype(ClipRecipe::videoOptions)>> codecs{
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
    // The tables, then the stream from its second fifth on.
    WriteWholeFile(folder / "cut.ts",
                   stream.substr(0, 188 * 3) + stream.substr(stream.size() / 5 / 188 * 188));
    const std::vector<DecodedFrame> all = ReadFile(folder / "whole.ts").pictures;
    const std::vector<DecodedFrame> shown = ReadFile(folder / "cut.ts").pictures;
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
