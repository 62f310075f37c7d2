#include "host/channel/video/frame_converter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/display.h>
}

#include "host/channel/video/colour.h"
#include "tests/support/frames.h"

namespace host {
namespace {

using support::Colour;
using support::MakeFrame;
using support::Yv12Buffer;

constexpr Time kFramePeriod = 400'000;
constexpr Colour kBlack = {16, 128, 128};
constexpr Colour kGreen = {145, 54, 34};

FrameConverter::Settings Window(int width, int height) {
  FrameConverter::Settings settings;
  settings.width = width;
  settings.height = height;
  return settings;
}

DecodedFrame Decoded(ffmpeg::Frame frame, Time start = 0) {
  DecodedFrame decoded;
  decoded.frame = std::move(frame);
  decoded.start = start;
  decoded.duration = kFramePeriod;
  return decoded;
}

void ExpectColour(Colour actual, Colour expected, int tolerance = 2) {
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(actual.u, expected.u, tolerance);
  EXPECT_NEAR(actual.v, expected.v, tolerance);
}

// The frame of a window for one frame of a source.
Yv12Buffer Shown(FrameConverter& converter, const FrameConverter::Settings& settings,
                 ffmpeg::Frame frame, Time start = 0) {
  Yv12Buffer buffer(settings.width, settings.height);
  buffer.Fill({99, 99, 99});
  converter.Push(Decoded(std::move(frame), start));
  if (converter.Next() == nullptr) {
    ADD_FAILURE() << "no picture";
    return buffer;
  }
  converter.Write(buffer.bytes());
  EXPECT_EQ(converter.Next(), nullptr);
  return buffer;
}

using Triple = std::array<double, 3>;

// 4:2:2 of ten bits in one colour, given in steps of eight bits.
ffmpeg::Frame MakeTenBits(int width, int height, Triple yuv) {
  ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = AV_PIX_FMT_YUV422P10;
  frame->width = width;
  frame->height = height;
  av_frame_get_buffer(frame.get(), 0);
  for (int plane = 0; plane < 3; ++plane) {
    for (int y = 0; y < height; ++y) {
      std::fill_n(
          reinterpret_cast<std::uint16_t*>(frame->data[plane] + y * frame->linesize[plane]),
          plane == 0 ? width : width / 2,
          static_cast<std::uint16_t>(std::lround(4 * yuv[static_cast<std::size_t>(plane)])));
    }
  }
  return frame;
}

TEST(FrameConverter, CopiesFramesThatFitAtTheRateOfTheCanvas) {
  const auto settings = Window(32, 16);
  FrameConverter converter(settings);
  const auto colourAt = [](int x, int y) { return Colour{16 + x + 4 * y, 100 + x, 140 - y}; };
  const Yv12Buffer shown = Shown(converter, settings, MakeFrame(32, 16, colourAt));
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 32; ++x) {
      const Colour chroma = colourAt(x / 2 * 2, y / 2 * 2);
      ExpectColour(shown.At(x, y), {colourAt(x, y).y, chroma.u, chroma.v}, 0);
    }
  }
  converter.Push(Decoded(MakeFrame(32, 16, kGreen), kFramePeriod / 2));
  EXPECT_EQ(converter.Next(), nullptr) << "the canvas has 25 a second";
  DecodedFrame jumped = Decoded(MakeFrame(32, 16, kGreen), kFramePeriod);
  jumped.discontinuity = true;
  converter.Push(std::move(jumped));
  ASSERT_NE(converter.Next(), nullptr);
  EXPECT_TRUE(converter.Next()->discontinuity);
}

TEST(FrameConverter, ReducesByTwoAndFourToTheRoundedMean) {
  for (const int factor : {2, 4}) {
    const auto settings = Window(60, 34);
    FrameConverter converter(settings);
    std::mt19937 random(5);
    std::vector<Colour> source(static_cast<std::size_t>(60 * 34 * factor * factor));
    for (Colour& colour : source) {
      colour = {static_cast<int>(16 + random() % 220), static_cast<int>(16 + random() % 225),
                static_cast<int>(16 + random() % 225)};
    }
    const int width = 60 * factor;
    const auto at = [&](int x, int y) { return source[static_cast<std::size_t>(y * width + x)]; };
    ffmpeg::Frame frame = MakeFrame(width, 34 * factor, at);
    frame->colorspace = AVCOL_SPC_SMPTE170M;
    const Yv12Buffer shown = Shown(converter, settings, std::move(frame));
    const auto mean = [&](int left, int top, int step, int Colour::*part) {
      int sum = 0;
      for (int i = 0; i < factor * factor; ++i) {
        sum += at(left + i % factor * step, top + i / factor * step).*part;
      }
      return (sum + factor * factor / 2) / (factor * factor);
    };
    for (int y = 0; y < 34; ++y) {
      for (int x = 0; x < 60; ++x) {
        const int left = x / 2 * 2 * factor;
        const int top = y / 2 * 2 * factor;
        ExpectColour(shown.At(x, y),
                     {mean(x * factor, y * factor, 1, &Colour::y), mean(left, top, 2, &Colour::u),
                      mean(left, top, 2, &Colour::v)},
                     0);
      }
    }
  }
}

TEST(FrameConverter, CentresAFrameOfAnotherShapeOnBlackWhateverWasInTheBuffer) {
  const auto settings = Window(320, 180);
  FrameConverter converter(settings);
  ffmpeg::Frame frame = MakeFrame(72, 58, kGreen);
  frame->sample_aspect_ratio = {16, 15};  // 1.324 wide: 238 of 320 pixels
  const Yv12Buffer shown = Shown(converter, settings, std::move(frame));
  for (const auto& [x, y] : {std::pair(0, 0), {38, 90}, {281, 90}}) {
    ExpectColour(shown.At(x, y), kBlack, 0);
  }
  for (const auto& [x, y] : {std::pair(41, 90), {160, 0}, {160, 179}, {277, 90}}) {
    ExpectColour(shown.At(x, y), kGreen);
  }
}

TEST(FrameConverter, ConvertsMatrixAndRangeToBt601StudioRange) {
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
  FrameConverter converter(settings);
  Time start = 0;
  for (const auto& each : cases) {
    // At the window's size and scaled.
    for (const int scale : {1, 3}) {
      ffmpeg::Frame frame = MakeFrame(32 * scale, 18 * scale, each.from);
      frame->colorspace = each.space;
      frame->color_range = each.range;
      const Yv12Buffer shown = Shown(converter, settings, std::move(frame), start);
      ExpectColour(shown.At(16, 8), each.to, 1);
      start += kFramePeriod;
    }
  }
  ffmpeg::Frame red = ffmpeg::MakeFrame();
  red->format = AV_PIX_FMT_RGB24;
  red->width = red->height = 16;
  av_frame_get_buffer(red.get(), 0);
  for (int i = 0; i < 16 * red->linesize[0]; ++i) {
    red->data[0][i] = i % red->linesize[0] % 3 == 0 ? 255 : 0;
  }
  ExpectColour(Shown(converter, settings, std::move(red), start).At(16, 9), {82, 90, 240});
  start += kFramePeriod;
  // High definition of an unspecified colour space.
  ffmpeg::Frame frame = MakeFrame(1280, 720, {63, 102, 240});
  ExpectColour(Shown(converter, settings, std::move(frame), start).At(16, 8), {82, 90, 240}, 1);
}

// The exact conversion, through RGB.
Triple Exact(Triple yuv, LumaWeights weights, bool fullRange) {
  const double kG = 1.0 - weights.red - weights.blue;
  const double y = fullRange ? yuv[0] / 255.0 : (yuv[0] - 16.0) / 219.0;
  const double u = (yuv[1] - 128.0) / (fullRange ? 255.0 : 224.0);
  const double v = (yuv[2] - 128.0) / (fullRange ? 255.0 : 224.0);
  const double red = y + 2.0 * (1.0 - weights.red) * v;
  const double blue = y + 2.0 * (1.0 - weights.blue) * u;
  const double green = (y - weights.red * red - weights.blue * blue) / kG;
  const double luma = 0.299 * red + 0.587 * green + 0.114 * blue;
  return {16.0 + 219.0 * luma, 128.0 + 224.0 * (blue - luma) / 1.772,
          128.0 + 224.0 * (red - luma) / 1.402};
}

Triple Converted(Triple yuv, LumaWeights weights, bool fullRange) {
  std::array<std::uint8_t, 4> y{};
  y.fill(static_cast<std::uint8_t>(yuv[0]));
  auto u = static_cast<std::uint8_t>(yuv[1]);
  auto v = static_cast<std::uint8_t>(yuv[2]);
  ColourMatrix matrix(weights, fullRange);
  matrix.Apply({y.data(), 2}, {&u, 1}, {&v, 1}, {y.data(), 2}, {&u, 1}, {&v, 1}, 2, 2);
  EXPECT_EQ(y[0], y[3]);
  return {static_cast<double>(y[0]), static_cast<double>(u), static_cast<double>(v)};
}

TEST(ColourMatrix, StaysWithinOneStepOfTheExactConversion) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> byte(0, 255);
  for (const LumaWeights weights : {kBt601, kBt709, kBt2020, kSmpte240m, kFcc}) {
    for (const bool fullRange : {false, true}) {
      for (int i = 0; i < 2000; ++i) {
        const Triple in = {static_cast<double>(byte(random)), static_cast<double>(byte(random)),
                           static_cast<double>(byte(random))};
        const Triple exact = Exact(in, weights, fullRange);
        const Triple got = Converted(in, weights, fullRange);
        for (std::size_t k = 0; k < 3; ++k) {
          ASSERT_NEAR(got[k], std::clamp(exact[k], 0.0, 255.0), 0.6) << k;
        }
      }
    }
  }
}

// The signal of the standards for a colour of display light, in cd/m2 of BT.2020 RGB.
constexpr double kWhite = 203;
constexpr double kPeak = 1000;

double Luminance(Triple rgb) {
  return 0.2627 * rgb[0] + 0.6780 * rgb[1] + 0.0593 * rgb[2];
}
double Pq(double light) {
  const double power = std::pow(light / 10000, 0.1593017578125);
  return std::pow((0.8359375 + 18.8515625 * power) / (1 + 18.6875 * power), 78.84375);
}
double FromPq(double signal) {
  const double root = std::pow(signal, 1 / 78.84375);
  return 10000 * std::pow(std::max(root - 0.8359375, 0.0) / (18.8515625 - 18.6875 * root),
                          1 / 0.1593017578125);
}
double Hlg(double scene) {
  return scene <= 1 / 12.0 ? std::sqrt(3 * scene)
                           : 0.17883277 * std::log(12 * scene - 0.28466892) + 0.55991073;
}
// The curve of BT.2390 from a display of this peak to one with graphics white as its white.
double Mapped(double light) {
  const double most = Pq(kWhite) / Pq(kPeak);
  const double knee = 1.5 * most - 0.5;
  double e = Pq(light) / Pq(kPeak);
  if (e > knee) {
    const double t = (e - knee) / (1 - knee);
    e = (2 * t * t * t - 3 * t * t + 1) * knee + (t * t * t - 2 * t * t + t) * (1 - knee) +
        (-2 * t * t * t + 3 * t * t) * most;
  }
  return FromPq(e * Pq(kPeak)) / kWhite;
}
// In the wall's primaries, hard clipped, as a signal in BT.601.
Colour OnTheWall(Triple light, bool isHdr) {
  Triple rgb{1.6605 * light[0] - 0.5876 * light[1] - 0.0728 * light[2],
             -0.1246 * light[0] + 1.1329 * light[1] - 0.0083 * light[2],
             -0.0182 * light[0] - 0.1006 * light[1] + 1.1187 * light[2]};
  const double brightest = std::max({rgb[0], rgb[1], rgb[2]});
  const double gain = isHdr ? Mapped(brightest) / brightest : 1 / kWhite;
  for (double& each : rgb) {
    each = std::pow(std::clamp(each * gain, 0.0, 1.0), 1 / 2.4);
  }
  const double y = 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2];
  return {static_cast<int>(std::lround(16 + 219 * y)),
          static_cast<int>(std::lround(128 + 224 * (rgb[2] - y) / 1.772)),
          static_cast<int>(std::lround(128 + 224 * (rgb[0] - y) / 1.402))};
}

// Within 5 of 219 steps of the curve of BT.2390 in greys, 8 in colours.
TEST(FrameConverter, MapsHighDynamicRangeAndWideColoursToTheWall) {
  const auto settings = Window(32, 32);
  FrameConverter converter(settings);
  const Triple lights[] = {{26, 26, 26},    {90, 90, 90},       {203, 203, 203},
                           {375, 375, 375}, {1000, 1000, 1000}, {203, 0, 0},
                           {0, 150, 0},     {20, 30, 200},      {120, 80, 60}};
  Time start = 0;
  for (const Triple& light : lights) {
    for (const int transfer : {AVCOL_TRC_SMPTE2084, AVCOL_TRC_ARIB_STD_B67, AVCOL_TRC_BT2020_10}) {
      const bool isHdr = transfer != AVCOL_TRC_BT2020_10;
      if (!isHdr && light[0] > kWhite) {
        continue;
      }
      Triple signal;
      for (std::size_t i = 0; i < 3; ++i) {
        const double scene = light[i] / kPeak * std::pow(Luminance(light) / kPeak, 1 / 1.2 - 1);
        signal[i] = transfer == AVCOL_TRC_SMPTE2084      ? Pq(light[i])
                    : transfer == AVCOL_TRC_ARIB_STD_B67 ? Hlg(scene)
                                                         : std::pow(light[i] / kWhite, 1 / 2.4);
      }
      const double y = Luminance(signal);
      const Triple yuv{16 + 219 * y, 128 + 224 * (signal[2] - y) / 1.8814,
                       128 + 224 * (signal[0] - y) / 1.4746};
      for (const int size : {32, 48}) {
        ffmpeg::Frame frame = MakeTenBits(size, size, yuv);
        frame->color_trc = static_cast<AVColorTransferCharacteristic>(transfer);
        frame->color_primaries = AVCOL_PRI_BT2020;
        frame->colorspace = AVCOL_SPC_BT2020_NCL;
        const bool isGrey = light[0] == light[1] && light[1] == light[2];
        SCOPED_TRACE(testing::PrintToString(light) + " by " + std::to_string(transfer));
        ExpectColour(Shown(converter, settings, std::move(frame), start += kFramePeriod).At(16, 16),
                     OnTheWall(light, isHdr),
                     !isHdr   ? 2
                     : isGrey ? 5
                              : 8);
      }
    }
    // In between, a frame that needs no conversion.
    ExpectColour(
        Shown(converter, settings, MakeFrame(32, 32, kGreen), start += kFramePeriod).At(16, 16),
        kGreen);
  }
}

// Two fields of a moving bar: at the left in one field, at the right in the other.
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
int Combing(const Yv12Buffer& shown) {
  int combing = 0;
  for (int y = 2; y < shown.height() - 2; ++y) {
    for (int x = 0; x < shown.width(); ++x) {
      combing += std::abs(shown.At(x, y).y - shown.At(x, y + 1).y) > 60 ? 1 : 0;
    }
  }
  return combing;
}

std::vector<FrameConverter::FrameTimes> ConvertInterlaced(FrameConverter& converter,
                                                          std::vector<int>& combing) {
  std::vector<FrameConverter::FrameTimes> times;
  Yv12Buffer buffer(64, 48);
  const auto drain = [&] {
    while (const auto* next = converter.Next()) {
      times.push_back(*next);
      converter.Write(buffer.bytes());
      combing.push_back(Combing(buffer));
    }
  };
  for (int i = 0; i < 5; ++i) {
    converter.Push(Decoded(Interlaced(i), i * kFramePeriod));
    drain();
  }
  converter.Finish();
  drain();
  return times;
}

TEST(FrameConverter, DeinterlacesWhatIsMarkedAsInterlacedAndKeepsItsTimes) {
  auto settings = Window(64, 48);
  settings.deinterlace = config::DeinterlaceMode::kOff;
  FrameConverter off(settings);
  std::vector<int> woven;
  ASSERT_EQ(ConvertInterlaced(off, woven).size(), 5U);
  EXPECT_GT(woven[2], 300);
  settings.deinterlace = config::DeinterlaceMode::kAuto;
  // A canvas that is fast enough shows each field.
  for (const int fields : {1, 2}) {
    settings.canvasRate = {25 * fields, 1};
    FrameConverter converter(settings);
    std::vector<int> combing;
    const auto times = ConvertInterlaced(converter, combing);
    ASSERT_EQ(times.size(), static_cast<std::size_t>(5 * fields));
    EXPECT_LT(combing[2], woven[2] / 5);
    for (std::size_t i = 0; i < times.size(); ++i) {
      EXPECT_EQ(times[i].start, static_cast<Time>(i) * kFramePeriod / fields);
      EXPECT_EQ(times[i].duration, kFramePeriod / fields);
    }
  }
}

// All eight, one after the other in one source, compared with the matrix at the corners.
TEST(FrameConverter, FollowsTheDisplayMatrixOfEachFrame) {
  const auto settings = Window(32, 32);
  FrameConverter converter(settings);
  const auto luma = [](int right, int down) { return 40 + 50 * right + 110 * down; };
  for (int i = 0; i < 8; ++i) {
    std::int32_t matrix[9];
    av_display_rotation_set(matrix, i / 2 * 90);
    av_display_matrix_flip(matrix, i % 2, 0);
    DecodedFrame decoded = Decoded(MakeFrame(64, 32,
                                             [&](int x, int y) {
                                               return Colour{luma(x / 32, y / 16), 128, 128};
                                             }),
                                   i * kFramePeriod);
    decoded.orientation = OrientationOf(matrix);
    decoded.discontinuity = i == 5;
    converter.Push(std::move(decoded));
    ASSERT_NE(converter.Next(), nullptr);
    EXPECT_EQ(converter.Next()->discontinuity, i == 5);
    Yv12Buffer shown(32, 32);
    converter.Write(shown.bytes());
    for (int corner = 0; corner < 4; ++corner) {
      const int x = corner % 2 * 2 - 1;
      const int y = corner / 2 * 2 - 1;
      const int right = matrix[0] * x + matrix[3] * y > 0 ? 1 : -1;
      const int down = matrix[1] * x + matrix[4] * y > 0 ? 1 : -1;
      EXPECT_NEAR(shown.At(16 + 5 * right, 16 + 5 * down).y, luma(corner % 2, corner / 2), 2)
          << i << ", corner " << corner;
    }
    const bool isTall = matrix[0] == 0;
    EXPECT_EQ(shown.At(2, 16).y, isTall ? 16 : shown.At(10, 16).y) << i;
  }
}

}  // namespace
}  // namespace host
