#include "host/session/background_picture.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/rational.h>
}

#include <algorithm>
#include <cmath>
#include <optional>

#include "host/channel/source/media_reader.h"
#include "host/channel/video/frame_converter.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

// Of the aspect of pixels as a fraction.
constexpr int kMaxAspectTerm = 1 << 20;

struct Ycbcr {
  double y;
  double cb;
  double cr;
};

Ycbcr ToYcbcr(config::Rgb colour) {
  const double r = colour.red / 255.0;
  const double g = colour.green / 255.0;
  const double b = colour.blue / 255.0;
  const double luma = 0.299 * r + 0.587 * g + 0.114 * b;
  return {16 + 219 * luma, 128 + 224 * (b - luma) / 1.772, 128 + 224 * (r - luma) / 1.402};
}

// A value between two samples, spread over the neighbours of (x, y) so that a slow gradient shows
// no bands.
std::uint8_t Dithered(double value, int x, int y) {
  constexpr double kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
  return static_cast<std::uint8_t>(std::floor(value + (kBayer[y & 3][x & 3] + 0.5) / 16));
}

// Copies a plane of sourceWidth columns from (x, y) on.
void CropPlane(const std::uint8_t* source, int sourceWidth, int x, int y, int width, int height,
               std::uint8_t* target) {
  for (int row = 0; row < height; ++row) {
    std::copy_n(source + static_cast<std::ptrdiff_t>(y + row) * sourceWidth + x, width,
                target + static_cast<std::ptrdiff_t>(row) * width);
  }
}

int EvenAtLeast(double value) {
  return static_cast<int>(std::ceil(value / 2 - 0.01)) * 2;
}

// Of so many pixels the ones in the middle that are wanted, an even number, or all.
void CentredPart(double wanted, int all, std::size_t& before, std::size_t& after) {
  const int part = wanted < all ? std::min(all, std::max(2, EvenAtLeast(wanted))) : all;
  before = static_cast<std::size_t>((all - part) / 4 * 2);
  after = static_cast<std::size_t>(all - part) - before;
}

// Cuts off what lies outside of a canvas of that aspect (width to height as shown), so that what is
// scaled is not much larger than the canvas, whatever the shape of the frame and of its pixels.
// Returns the aspect of the rest, at most four times as wide or high as the canvas's.
double CropToAspect(AVFrame& frame, Ratio pixelAspect, double aspect) {
  const double pixel = pixelAspect.value();
  CentredPart(frame.height * aspect / pixel, frame.width, frame.crop_left, frame.crop_right);
  CentredPart(frame.width * pixel / aspect, frame.height, frame.crop_top, frame.crop_bottom);
  ffmpeg::Check(av_frame_apply_cropping(&frame, AV_FRAME_CROP_UNALIGNED), "cannot crop it");
  return std::clamp(frame.width * pixel / frame.height, aspect / 4, aspect * 4);
}

}  // namespace

std::vector<std::uint8_t> MakeBackground(const config::Canvas& canvas) {
  const config::Background& background = canvas.background;
  switch (background.kind) {
    case config::Background::Kind::kColour:
      return ColourBackground(canvas.width, canvas.height, background.top);
    case config::Background::Kind::kGradient:
      return GradientBackground(canvas.width, canvas.height, background.top, background.bottom);
    case config::Background::Kind::kPicture:
      break;
  }
  return FileBackground(canvas.width, canvas.height, canvas.pixelAspect(), background.picture);
}

std::vector<std::uint8_t> ColourBackground(int width, int height, config::Rgb colour) {
  return GradientBackground(width, height, colour, colour);
}

std::vector<std::uint8_t> GradientBackground(int width, int height, config::Rgb top,
                                             config::Rgb bottom) {
  const Ycbcr from = ToYcbcr(top);
  const Ycbcr to = ToYcbcr(bottom);
  const bool flat = top == bottom;
  std::vector<std::uint8_t> picture;
  picture.reserve(static_cast<std::size_t>(width) * height / 2 * 3);
  const auto addPlane = [&](int columns, int rows, double first, double last) {
    for (int y = 0; y < rows; ++y) {
      const double value = rows > 1 ? first + (last - first) * y / (rows - 1) : first;
      for (int x = 0; x < columns; ++x) {
        picture.push_back(flat ? static_cast<std::uint8_t>(std::lround(value))
                               : Dithered(value, x, y));
      }
    }
  };
  addPlane(width, height, from.y, to.y);
  addPlane(width / 2, height / 2, from.cr, to.cr);
  addPlane(width / 2, height / 2, from.cb, to.cb);
  return picture;
}

std::vector<std::uint8_t> FileBackground(int width, int height, Ratio pixelAspect,
                                         const std::filesystem::path& file) {
  MediaReader::Settings settings;
  settings.source = file.string();
  settings.options.audio.enabled = false;
  MediaReader reader(settings);
  reader.Open();
  MediaItem item = reader.Read();
  while (!std::holds_alternative<DecodedFrame>(item)) {
    if (std::holds_alternative<EndOfMedia>(item)) {
      throw MediaError(MediaError::Kind::kNoStreams, "it holds no picture", file.string());
    }
    item = reader.Read();
  }
  auto& picture = std::get<DecodedFrame>(item);
  AVFrame& frame = *picture.frame;
  const bool swapsSides = picture.orientation.swapsSides();
  const double wanted = pixelAspect.value() * width / height;
  std::vector<std::uint8_t> whole;
  FrameConverter::Settings cover;
  try {
    const double stored =
        CropToAspect(frame, reader.info().video->pixelAspect, swapsSides ? 1 / wanted : wanted);
    frame.sample_aspect_ratio = av_d2q(stored * frame.height / frame.width, kMaxAspectTerm);
    // In pixels of the canvas.
    const double aspect = (swapsSides ? 1 / stored : stored) / pixelAspect.value();
    cover.width = std::max(width, EvenAtLeast(height * aspect));
    cover.height = std::max(height, EvenAtLeast(width / aspect));
    cover.canvasPixelAspect = pixelAspect;
    FrameConverter converter(cover);
    converter.Push(std::move(picture));
    converter.Finish();
    whole.resize(converter.bufferSize());
    converter.Write(whole);
  } catch (const ffmpeg::Error& error) {
    throw MediaError(MediaError::Kind::kFailed, error.what(), file.string());
  }

  std::vector<std::uint8_t> canvas(static_cast<std::size_t>(width) * height / 2 * 3);
  const int x = (cover.width - width) / 4 * 2;
  const int y = (cover.height - height) / 4 * 2;
  const std::uint8_t* source = whole.data();
  std::uint8_t* target = canvas.data();
  CropPlane(source, cover.width, x, y, width, height, target);
  source += static_cast<std::ptrdiff_t>(cover.width) * cover.height;
  target += static_cast<std::ptrdiff_t>(width) * height;
  for (int plane = 0; plane < 2; ++plane) {
    CropPlane(source, cover.width / 2, x / 2, y / 2, width / 2, height / 2, target);
    source += static_cast<std::ptrdiff_t>(cover.width / 2) * (cover.height / 2);
    target += static_cast<std::ptrdiff_t>(width / 2) * (height / 2);
  }
  return canvas;
}

}  // namespace host
