#include "host/output/snapshot.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"
#include "util/yv12.h"

namespace host {

namespace {

bool IsWhole(std::span<const std::uint8_t> yv12, int width, int height) {
  return static_cast<std::int64_t>(yv12.size()) >= qorp::PictureBytes(width, height);
}

ffmpeg::Frame ToRgb(std::span<const std::uint8_t> yv12, int width, int height, int shownWidth) {
  ffmpeg::Frame rgb = ffmpeg::MakeFrame();
  rgb->format = AV_PIX_FMT_RGB24;
  rgb->width = shownWidth;
  rgb->height = height;
  ffmpeg::Check(av_frame_get_buffer(rgb.get(), 0), "cannot make a picture file");

  const ffmpeg::Scaler scaler(sws_getContext(
      width, height, AV_PIX_FMT_YUV420P, shownWidth, height, AV_PIX_FMT_RGB24,
      SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
  if (!scaler) {
    throw std::bad_alloc();
  }
  const int* const coefficients = sws_getCoefficients(SWS_CS_ITU601);
  sws_setColorspaceDetails(scaler.get(), coefficients, 0, coefficients, 1, 0, 1 << 16, 1 << 16);
  const qorp::ConstYv12Picture picture{yv12.data(), width, height};
  ffmpeg::Check(sws_scale(scaler.get(), picture.YuvData().data(), picture.YuvStrides().data(), 0,
                          height, rgb->data, rgb->linesize),
                "cannot make a picture file");
  return rgb;
}

// Encodes one picture; quality: of the encoder, 0 where it has none.
ffmpeg::Packet Encode(AVFrame& picture, AVCodecID id, int quality, const char* what) {
  const AVCodec* encoder = avcodec_find_encoder(id);
  if (encoder == nullptr) {
    throw ffmpeg::Error(AVERROR_ENCODER_NOT_FOUND, what);
  }
  const ffmpeg::Codec codec(avcodec_alloc_context3(encoder));
  if (!codec) {
    throw std::bad_alloc();
  }
  codec->width = picture.width;
  codec->height = picture.height;
  codec->pix_fmt = static_cast<AVPixelFormat>(picture.format);
  codec->color_range = picture.color_range;
  codec->time_base = {1, 25};
  codec->thread_count = 1;
  if (quality > 0) {
    codec->flags |= AV_CODEC_FLAG_QSCALE;
    codec->global_quality = picture.quality = quality * FF_QP2LAMBDA;
  }
  ffmpeg::Check(avcodec_open2(codec.get(), encoder, nullptr), what);
  ffmpeg::Check(avcodec_send_frame(codec.get(), &picture), what);
  ffmpeg::Check(avcodec_send_frame(codec.get(), nullptr), what);
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  ffmpeg::Check(avcodec_receive_packet(codec.get(), packet.get()), what);
  return packet;
}

void WriteWhole(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
  std::filesystem::path partial = file;
  partial += ".part";
  std::ofstream stream(partial, std::ios::binary | std::ios::trunc);
  stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  stream.close();
  if (!stream) {
    const std::error_code reason(errno, std::generic_category());
    std::error_code ignored;
    std::filesystem::remove(partial, ignored);
    throw std::filesystem::filesystem_error("cannot write a picture file", file, reason);
  }
  std::filesystem::rename(partial, file);
}

constexpr std::chrono::seconds kLimit{1};

}  // namespace

void WriteSnapshot(const std::filesystem::path& file, std::span<const std::uint8_t> yv12, int width,
                   int height, Ratio pixelAspect) {
  if (width < 2 || height < 2 || !IsWhole(yv12, width, height) || !pixelAspect.positive()) {
    throw std::invalid_argument("a snapshot needs a whole YV12 picture");
  }
  const int shownWidth = std::max(1, static_cast<int>(std::lround(width * pixelAspect.value())));
  const ffmpeg::Packet png =
      Encode(*ToRgb(yv12, width, height, shownWidth), AV_CODEC_ID_PNG, 0, "cannot make a PNG file");
  WriteWhole(file, png->data, static_cast<std::size_t>(png->size));
}

std::string EncodeJpeg(std::span<const std::uint8_t> yv12, int width, int height,
                       const config::Window& part, Ratio pixelAspect,
                       std::optional<std::pair<int, int>> size) {
  constexpr const char* kWhat = "cannot make a JPEG picture";
  constexpr int kQuality = 4;
  const int left = std::max(part.x, 0);
  const int top = std::max(part.y, 0);
  const int partWidth = std::min(part.x + part.width, width) - left;
  const int partHeight = std::min(part.y + part.height, height) - top;
  if (partWidth < 2 || partHeight < 2 || left % 2 != 0 || top % 2 != 0 ||
      !IsWhole(yv12, width, height) || !pixelAspect.positive()) {
    throw std::invalid_argument("a JPEG picture needs a part of a whole YV12 picture");
  }
  ffmpeg::Frame picture = ffmpeg::MakeFrame();
  picture->format = AV_PIX_FMT_YUV420P;
  picture->color_range = AVCOL_RANGE_JPEG;
  picture->width =
      size ? size->first
           : std::max(2, static_cast<int>(std::lround(partWidth * pixelAspect.value())));
  picture->height = size ? size->second : partHeight;
  ffmpeg::Check(av_frame_get_buffer(picture.get(), 0), kWhat);
  const ffmpeg::Scaler scaler(sws_alloc_context());
  if (!scaler) {
    throw std::bad_alloc();
  }
  // The ranges are set before it is initialised: afterwards they would be taken for equal.
  for (const auto& [option, value] : {std::pair{"srcw", partWidth},
                                      {"srch", partHeight},
                                      {"src_format", int{AV_PIX_FMT_YUV420P}},
                                      {"src_range", 0},
                                      {"dstw", picture->width},
                                      {"dsth", picture->height},
                                      {"dst_format", int{AV_PIX_FMT_YUV420P}},
                                      {"dst_range", 1},
                                      {"sws_flags", SWS_BICUBIC}}) {
    ffmpeg::Check(av_opt_set_int(scaler.get(), option, value, 0), kWhat);
  }
  ffmpeg::Check(sws_init_context(scaler.get(), nullptr, nullptr), kWhat);
  const qorp::ConstYv12Picture whole{yv12.data(), width, height};
  const std::ptrdiff_t chroma = qorp::ChromaIndex(left, top, width);
  const std::uint8_t* const planes[4] = {
      whole.Y() + static_cast<std::ptrdiff_t>(top) * width + left, whole.U() + chroma,
      whole.V() + chroma, nullptr};
  ffmpeg::Check(sws_scale(scaler.get(), planes, whole.YuvStrides().data(), 0, partHeight,
                          picture->data, picture->linesize),
                kWhat);
  const ffmpeg::Packet jpeg = Encode(*picture, AV_CODEC_ID_MJPEG, kQuality, kWhat);
  return {reinterpret_cast<const char*>(jpeg->data), static_cast<std::size_t>(jpeg->size)};
}

void LatestFrame::Take(const ComPtr<IMediaSample>& frame) {
  if (!isWanted_.load(std::memory_order_relaxed)) {
    return;
  }
  {
    const os::MutexLock guard(lock_);
    if (!isWanted_.load(std::memory_order_relaxed)) {
      return;  // the caller has just stopped waiting
    }
    frame_ = frame;
    isWanted_.store(false, std::memory_order_relaxed);
  }
  taken_.NotifyOne();
}

ComPtr<IMediaSample> LatestFrame::Next() {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  const os::MutexLock guard(lock_);
  isWanted_.store(true, std::memory_order_relaxed);
  while (!frame_ && taken_.WaitUntil(lock_, deadline)) {
  }
  isWanted_.store(false, std::memory_order_relaxed);
  ComPtr<IMediaSample> frame = frame_;
  frame_ = nullptr;
  return frame;
}

std::optional<std::string> LatestFrame::Jpeg(const config::Canvas& canvas,
                                             const std::optional<config::Window>& part,
                                             std::optional<std::pair<int, int>> size) {
  std::vector<std::uint8_t> pixels;
  {
    const ComPtr<IMediaSample> frame = Next();
    BYTE* start = nullptr;
    if (!frame || FAILED(frame->GetPointer(&start))) {
      return std::nullopt;
    }
    pixels.assign(start, start + frame->GetActualDataLength());
  }
  return EncodeJpeg(pixels, canvas.width, canvas.height,
                    part.value_or(config::Window{0, 0, canvas.width, canvas.height}),
                    canvas.pixelAspect(), size);
}

}  // namespace host
