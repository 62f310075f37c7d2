#include "render/yv12.h"

#include <algorithm>
#include <cstring>

#include "render/kernels/samples.h"

namespace {

// The canvas is larger than the caches and its rows lie pages apart, where the hardware does not
// prefetch: a row is prefetched while the ones before it are being written.
constexpr std::int32_t kRowsAhead = 4;

void CopyRows(const std::uint8_t* from, std::ptrdiff_t fromStride, std::uint8_t* to,
              std::ptrdiff_t toStride, std::int32_t bytes, std::int32_t rows) {
  for (std::int32_t row = 0; row < rows; ++row) {
    if (row + kRowsAhead < rows) {
      PrefetchRow(to + kRowsAhead * toStride, bytes);
    }
    std::memcpy(to, from, static_cast<std::size_t>(bytes));
    from += fromStride;
    to += toStride;
  }
}

}  // namespace

void CopyPictureClipped(const std::uint8_t* src, std::int32_t w, std::int32_t h,
                        const Yv12Picture& canvas, std::int32_t x, std::int32_t y) {
  const std::int64_t x0 = std::max<std::int64_t>(x, 0);
  const std::int64_t y0 = std::max<std::int64_t>(y, 0);
  const std::int64_t x1 =
      std::max<std::int64_t>(std::min<std::int64_t>(std::int64_t{x} + w, canvas.width), x0);
  const std::int64_t y1 =
      std::max<std::int64_t>(std::min<std::int64_t>(std::int64_t{y} + h, canvas.height), y0);
  if (x1 == x0 || y1 == y0) {
    return;
  }
  const auto columns = static_cast<std::int32_t>(x1 - x0);
  const auto rows = static_cast<std::int32_t>(y1 - y0);
  const ConstYv12Picture source{src, w, h};
  CopyRows(source.Y() + (y0 - y) * w + (x0 - x), w, canvas.Y() + y0 * canvas.width + x0,
           canvas.width, columns, rows);

  const std::ptrdiff_t from = (y0 - y) / 2 * source.ChromaWidth() + (x0 - x) / 2;
  const std::ptrdiff_t to = y0 / 2 * canvas.ChromaWidth() + x0 / 2;
  CopyRows(source.V() + from, source.ChromaWidth(), canvas.V() + to, canvas.ChromaWidth(),
           columns / 2, rows / 2);
  CopyRows(source.U() + from, source.ChromaWidth(), canvas.U() + to, canvas.ChromaWidth(),
           columns / 2, rows / 2);
}

void FillPlaneRect(const Yv12Picture& canvas, Plane plane, std::int64_t x, std::int64_t y,
                   std::int32_t w, std::int32_t h, std::uint8_t value) {
  std::int64_t x0 = std::max<std::int64_t>(x, 0);
  std::int64_t y0 = std::max<std::int64_t>(y, 0);
  std::int64_t x1 = std::min<std::int64_t>(std::int64_t{x} + w, canvas.width);
  std::int64_t y1 = std::min<std::int64_t>(std::int64_t{y} + h, canvas.height);
  if (x1 <= x0 || y1 <= y0) {
    return;
  }
  std::uint8_t* to = canvas.Y();
  std::ptrdiff_t stride = canvas.width;
  if (plane != Plane::Y) {
    to = plane == Plane::V ? canvas.V() : canvas.U();
    stride = canvas.ChromaWidth();
    x0 /= 2;
    y0 /= 2;
    x1 = std::min<std::int64_t>((x1 + 1) / 2, canvas.ChromaWidth());
    y1 = std::min<std::int64_t>((y1 + 1) / 2, canvas.ChromaHeight());
    if (x1 <= x0) {
      return;
    }
  }
  for (std::int64_t row = y0; row < y1; ++row) {
    std::memset(to + row * stride + x0, value, static_cast<std::size_t>(x1 - x0));
  }
}
