#include "host/channel/picture/picture_converter.h"

#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/frames.h"

namespace host {
namespace {

using support::Colour;
using support::MakeFrame;
using support::Yv12Buffer;

constexpr Time kFrame = 400'000;
constexpr Colour kBlack = {16, 128, 128};
constexpr Colour kGreen = {145, 54, 34};

PictureConverter::Settings Window(int width, int height) {
  PictureConverter::Settings settings;
  settings.width = width;
  settings.height = height;
  return settings;
}

VideoPicture Picture(ffmpeg::Frame frame, Time start = 0) {
  VideoPicture picture;
  picture.frame = std::move(frame);
  picture.start = start;
  picture.duration = kFrame;
  return picture;
}

void ExpectColour(Colour actual, Colour expected, int tolerance = 2) {
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(actual.u, expected.u, tolerance);
  EXPECT_NEAR(actual.v, expected.v, tolerance);
}

// The picture of a window for one frame of a source.
Yv12Buffer Shown(PictureConverter& converter, const PictureConverter::Settings& settings,
                 ffmpeg::Frame frame, Time start = 0) {
  Yv12Buffer buffer(settings.width, settings.height);
  buffer.Fill({99, 99, 99});
  converter.Push(Picture(std::move(frame), start));
  if (converter.Next() == nullptr) {
    ADD_FAILURE() << "no picture";
    return buffer;
  }
  converter.Write(buffer.bytes());
  EXPECT_EQ(converter.Next(), nullptr);
  return buffer;
}

TEST(PictureConverter, CopiesAPictureThatFitsAlready) {
  const auto settings = Window(32, 16);
  PictureConverter converter(settings);
  const auto colourAt = [](int x, int y) { return Colour{16 + x + 4 * y, 100 + x, 140 - y}; };
  const Yv12Buffer shown = Shown(converter, settings, MakeFrame(32, 16, colourAt));
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 32; ++x) {
      const Colour expected = colourAt(x, y);
      EXPECT_EQ(shown.At(x, y).y, expected.y);
      EXPECT_EQ(shown.At(x, y).u, colourAt(x / 2 * 2, y / 2 * 2).u);
      EXPECT_EQ(shown.At(x, y).v, colourAt(x / 2 * 2, y / 2 * 2).v);
    }
  }
}

TEST(PictureConverter, CentresAPictureOfAnotherShapeOnBlackWhateverWasInTheBuffer) {
  const auto settings = Window(320, 180);
  PictureConverter converter(settings);
  ffmpeg::Frame frame = MakeFrame(72, 58, kGreen);
  frame->sample_aspect_ratio = {16, 15};  // 1.324 wide: 238 of 320 pixels
  const Yv12Buffer shown = Shown(converter, settings, std::move(frame));
  ExpectColour(shown.At(0, 0), kBlack, 0);
  ExpectColour(shown.At(38, 90), kBlack, 0);
  ExpectColour(shown.At(41, 90), kGreen);
  ExpectColour(shown.At(160, 0), kGreen);
  ExpectColour(shown.At(160, 179), kGreen);
  ExpectColour(shown.At(277, 90), kGreen);
  ExpectColour(shown.At(281, 90), kBlack, 0);
}

TEST(PictureConverter, KeepsTheSizeOfTheWindowWhenTheSourceChangesItsFormat) {
  const auto settings = Window(64, 36);
  PictureConverter converter(settings);
  ExpectColour(Shown(converter, settings, MakeFrame(640, 360, kGreen)).At(32, 18), kGreen);
  ExpectColour(Shown(converter, settings, MakeFrame(36, 64, kGreen), kFrame).At(4, 18), kBlack, 0);
  ExpectColour(Shown(converter, settings, MakeFrame(64, 36, kGreen), 2 * kFrame).At(4, 18), kGreen);
}

TEST(PictureConverter, ConvertsMatrixAndRangeToBt601StudioRange) {
  const auto settings = Window(32, 18);
  const struct {
    Colour from;
    AVColorSpace space;
    AVColorRange range;
    Colour to;
  } cases[] = {
      {{82, 90, 240}, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG, {82, 90, 240}},
      {{63, 102, 240}, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG, {82, 90, 240}},
      {{255, 128, 128}, AVCOL_SPC_BT709, AVCOL_RANGE_JPEG, {235, 128, 128}},
      {{0, 128, 128}, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_JPEG, {16, 128, 128}},
      {{63, 102, 240}, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED, {63, 102, 240}},
  };
  PictureConverter converter(settings);
  Time start = 0;
  for (const auto& each : cases) {
    // At the window's size and scaled.
    for (const int scale : {1, 3}) {
      ffmpeg::Frame frame = MakeFrame(32 * scale, 18 * scale, each.from);
      frame->colorspace = each.space;
      frame->color_range = each.range;
      const Yv12Buffer shown = Shown(converter, settings, std::move(frame), start);
      ExpectColour(shown.At(16, 8), each.to, 1);
      start += kFrame;
    }
  }
  // High definition that does not say what it is.
  ffmpeg::Frame frame = MakeFrame(1280, 720, {63, 102, 240});
  ExpectColour(Shown(converter, settings, std::move(frame), start).At(16, 8), {82, 90, 240}, 1);
}

TEST(PictureConverter, TakesOtherPixelFormats) {
  const auto settings = Window(32, 32);
  PictureConverter converter(settings);
  ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = AV_PIX_FMT_RGB24;
  frame->width = 16;
  frame->height = 16;
  av_frame_get_buffer(frame.get(), 0);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 16; ++x) {
      std::uint8_t* const pixel = frame->data[0] + y * frame->linesize[0] + 3 * x;
      pixel[0] = 255;
      pixel[1] = 0;
      pixel[2] = 0;
    }
  }
  ExpectColour(Shown(converter, settings, std::move(frame)).At(16, 16), {82, 90, 240});

  frame = ffmpeg::MakeFrame();
  frame->format = AV_PIX_FMT_YUV422P10;
  frame->width = 16;
  frame->height = 16;
  av_frame_get_buffer(frame.get(), 0);
  for (int plane = 0; plane < 3; ++plane) {
    for (int y = 0; y < 16; ++y) {
      auto* const row =
          reinterpret_cast<std::uint16_t*>(frame->data[plane] + y * frame->linesize[plane]);
      for (int x = 0; x < (plane == 0 ? 16 : 8); ++x) {
        row[x] = static_cast<std::uint16_t>(4 * (plane == 0 ? 145 : plane == 1 ? 54 : 34));
      }
    }
  }
  ExpectColour(Shown(converter, settings, std::move(frame), kFrame).At(16, 16), kGreen);
}

// Two fields of a bar that moves: the one field has it left, the other right.
ffmpeg::Frame Interlaced(int step) {
  ffmpeg::Frame frame = MakeFrame(64, 48, [step](int x, int y) {
    const int left = 8 + 8 * step + (y % 2) * 4;
    return x >= left && x < left + 8 ? Colour{235, 128, 128} : kBlack;
  });
  frame->interlaced_frame = 1;
  frame->top_field_first = 1;
  return frame;
}

// How much neighbouring rows differ: large where fields of two moments are woven together.
int Combing(const Yv12Buffer& picture) {
  int combing = 0;
  for (int y = 2; y < picture.height() - 2; ++y) {
    for (int x = 0; x < picture.width(); ++x) {
      combing += std::abs(picture.At(x, y).y - picture.At(x, y + 1).y) > 60 ? 1 : 0;
    }
  }
  return combing;
}

std::vector<PictureConverter::PictureTimes> ConvertInterlaced(PictureConverter& converter,
                                                              std::vector<int>& combing) {
  std::vector<PictureConverter::PictureTimes> times;
  Yv12Buffer buffer(64, 48);
  const auto drain = [&] {
    while (const auto* next = converter.Next()) {
      times.push_back(*next);
      converter.Write(buffer.bytes());
      combing.push_back(Combing(buffer));
    }
  };
  for (int i = 0; i < 5; ++i) {
    converter.Push(Picture(Interlaced(i), i * kFrame));
    drain();
  }
  converter.Finish();
  drain();
  return times;
}

TEST(PictureConverter, DeinterlacesWhatIsMarkedAsInterlacedAndKeepsItsTimes) {
  std::vector<int> combing;
  auto settings = Window(64, 48);
  PictureConverter converter(settings);
  const auto times = ConvertInterlaced(converter, combing);
  ASSERT_EQ(times.size(), 5U);
  for (std::size_t i = 0; i < times.size(); ++i) {
    EXPECT_EQ(times[i].start, static_cast<Time>(i) * kFrame);
    EXPECT_EQ(times[i].duration, kFrame);
  }
  settings.deinterlace = Deinterlace::kOff;
  PictureConverter off(settings);
  std::vector<int> woven;
  ASSERT_EQ(ConvertInterlaced(off, woven).size(), 5U);
  EXPECT_GT(woven[2], 300);
  EXPECT_LT(combing[2], woven[2] / 5);
}

TEST(PictureConverter, ShowsEachFieldOnACanvasThatIsFastEnough) {
  std::vector<int> combing;
  auto settings = Window(64, 48);
  settings.canvasRate = {50, 1};
  PictureConverter converter(settings);
  const auto times = ConvertInterlaced(converter, combing);
  ASSERT_EQ(times.size(), 10U);
  for (std::size_t i = 0; i < times.size(); ++i) {
    EXPECT_EQ(times[i].start, static_cast<Time>(i) * kFrame / 2);
    EXPECT_EQ(times[i].duration, kFrame / 2);
  }
}

TEST(PictureConverter, ThinsPicturesToTheRateOfTheCanvas) {
  const auto settings = Window(32, 18);
  PictureConverter converter(settings);
  Yv12Buffer buffer(32, 18);
  int written = 0;
  for (int i = 0; i < 100; ++i) {
    converter.Push(Picture(MakeFrame(32, 18, kGreen), i * kFrame / 2));
    while (converter.Next() != nullptr) {
      converter.Write(buffer.bytes());
      ++written;
    }
  }
  EXPECT_NEAR(written, 50, 1);
}

TEST(PictureConverter, TurnsAPictureUpright) {
  auto settings = Window(32, 32);
  settings.rotation = 90;
  PictureConverter converter(settings);
  // Bright at the top: after a quarter turn clockwise it is on the right.
  const Yv12Buffer shown = Shown(converter, settings, MakeFrame(32, 32, [](int, int y) {
                                   return Colour{y < 16 ? 235 : 16, 128, 128};
                                 }));
  EXPECT_NEAR(shown.At(28, 16).y, 235, 2);
  EXPECT_NEAR(shown.At(4, 16).y, 16, 2);
}

TEST(PictureConverter, PassesTheFlagOfAJumpOn) {
  const auto settings = Window(32, 18);
  PictureConverter converter(settings);
  VideoPicture picture = Picture(MakeFrame(32, 18, kGreen), 10);
  picture.discontinuity = true;
  converter.Push(std::move(picture));
  ASSERT_NE(converter.Next(), nullptr);
  EXPECT_TRUE(converter.Next()->discontinuity);
}

}  // namespace
}  // namespace host
