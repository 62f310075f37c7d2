#include <filesystem>
#include <tuple>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "host/output/muxer.h"
#include "host/output/snapshot.h"
#include "tests/host/clips.h"
#include "tests/host/output/output_session_fixture.h"
#include "tests/support/frames.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using support::Yv12Buffer;

Muxer::Settings To(const std::filesystem::path& file) {
  Muxer::Settings settings;
  settings.url = file.string();
  return settings;
}

// A flat frame that differs with every step.
Yv12Buffer Moment(int step) {
  Yv12Buffer picture(96, 64);
  picture.Fill({40 + step * 2, 90 + step, 160 - step});
  return picture;
}

TEST(VideoEncoder, KeepsFramesTimesAndColoursThroughAFile) {
  const TemporaryFolder folder;
  VideoEncoder::Settings settings = SmallVideo();
  settings.quality = 10.0;
  settings.pixelAspect = {16, 15};
  VideoEncoder encoder(settings);
  Muxer muxer(To(folder / "a.mkv"));
  const std::size_t track = muxer.AddVideo(*encoder.parameters(), settings.frameRate);
  muxer.Start();
  const VideoEncoder::PacketSink sink = [&](ffmpeg::Packet packet) {
    muxer.Write(track, std::move(packet));
  };
  const Time first = 3 * kSecond;
  for (int i = 0; i < 30; ++i) {
    if (i != 11) {  // a frame that was late and left out
      encoder.Encode(Moment(i).bytes(), first + i * 400'000, sink);
    }
  }
  encoder.Finish(sink);
  muxer.Finish();

  MediaReader reader(Source(folder / "a.mkv"));
  reader.Open();
  const VideoInfo& video = *reader.info().video;
  EXPECT_EQ(std::tie(video.pixelAspect, video.frameRate, video.colourSpace, video.colourRange),
            std::tuple(Ratio{16, 15}, Ratio{25, 1}, "smpte170m", "tv"));
  const Content content = ReadAll(reader);
  ASSERT_EQ(content.pictures.size(), 29U);
  for (int i = 0; i < 29; ++i) {
    const int step = i < 11 ? i : i + 1;
    const DecodedFrame& picture = content.pictures[static_cast<std::size_t>(i)];
    EXPECT_EQ(picture.start - content.pictures[0].start, step * 400'000);
    const support::Colour colour = Moment(step).At(48, 32);
    EXPECT_NEAR(picture.frame->data[0][32 * picture.frame->linesize[0] + 48], colour.y, 2) << i;
    EXPECT_NEAR(picture.frame->data[1][16 * picture.frame->linesize[1] + 24], colour.u, 2) << i;
    EXPECT_NEAR(picture.frame->data[2][16 * picture.frame->linesize[2] + 24], colour.v, 2) << i;
  }
}

TEST(VideoEncoder, PutsKeyframesOnTheGridWhateverIsLeftOut) {
  VideoEncoder::Settings settings = SmallVideo();
  settings.keyFrameInterval = 4 * kSecond / 10;
  VideoEncoder encoder(settings);
  std::vector<Time> keyframes;
  const VideoEncoder::PacketSink sink = [&](const ffmpeg::Packet& packet) {
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0) {
      keyframes.push_back(packet->pts / kMillisecond);
    }
  };
  encoder.BeginGrid(0);
  for (int i = 5; i < 45; ++i) {
    if (i != 8 && i != 9 && i != 20 && i != 33) {
      encoder.Encode(Yv12Buffer(96, 64).bytes(), i * 400'000, sink);
    }
  }
  encoder.Finish(sink);
  EXPECT_EQ(keyframes, (std::vector<Time>{200, 400, 840, 1200, 1600}));
}

TEST(Muxer, LeavesADamagedPacketOutAndMovesOneWhoseTimeCameBefore) {
  const TemporaryFolder folder;
  MediaReader reader(Source(Write(SmallClip(), folder / "a.ts")));
  reader.Open();
  const Content content = ReadAll(reader);
  Muxer muxer(To(folder / "b.mp4"));
  const std::size_t track = muxer.AddAudio(*reader.audioParameters(), "", "");
  muxer.Start();
  for (std::size_t i = 0; i < content.packets.size(); ++i) {
    ffmpeg::Packet packet = ffmpeg::RefPacket(*content.packets[i].packet);
    if (i == 10) {
      packet->pts = packet->dts = content.packets[9].packet->dts;
    }
    if (i == 7) {
      ASSERT_GE(av_packet_make_writable(packet.get()), 0);
      packet->data[0] = 0;  // no longer the sync word of a frame
    }
    EXPECT_EQ(muxer.Write(track, std::move(packet)), i != 7);
  }
  muxer.Finish();
  EXPECT_EQ(ReadFile(folder / "b.mp4").packets.size(), content.packets.size() - 1);
}

TEST(Snapshot, IsAPictureOfTheRightColoursAndShapeAndLeavesNothingElse) {
  const TemporaryFolder folder;
  Yv12Buffer picture(96, 64);
  picture.Fill({82, 90, 240});  // red
  const std::filesystem::path file = folder / "a.png";
  WriteSnapshot(file, picture.bytes(), 96, 64, {16, 15});

  const Content content = ReadFile(file);
  ASSERT_EQ(content.pictures.size(), 1U);
  const AVFrame& frame = *content.pictures[0].frame;
  ASSERT_EQ(std::tie(frame.width, frame.height, frame.format),
            std::tuple(102, 64, AV_PIX_FMT_RGB24));
  const std::uint8_t* const pixel = frame.data[0] + 20 * frame.linesize[0] + 3 * 50;
  EXPECT_TRUE(pixel[0] >= 252 && pixel[1] <= 3 && pixel[2] <= 3);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);

  // The same as JPEG, of what lies inside.
  WriteWholeFile(folder / "a.jpg",
                 EncodeJpeg(picture.bytes(), 96, 64, {-10, 32, 40, 48}, {16, 15}));
  const Content jpeg = ReadFile(folder / "a.jpg");
  ASSERT_EQ(jpeg.pictures.size(), 1U);
  const AVFrame& part = *jpeg.pictures[0].frame;
  EXPECT_EQ(std::tie(part.width, part.height), std::tuple(32, 32));
  EXPECT_NEAR(part.data[0][0], 76, 2) << "brightness of red over the full range";

  EXPECT_THROW(WriteSnapshot(folder / "no/a.png", picture.bytes(), 96, 64), std::runtime_error);
}

}  // namespace
}  // namespace host
