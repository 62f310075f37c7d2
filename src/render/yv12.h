// YV12 frames and the primitives that write into them: copy and fill.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/yv12.h"

// Samples are in studio range (luma 16 to 235, chroma 16 to 240, neutral chroma 128); nothing here
// clamps.
using qorp::AnnouncedPictureBytes;
using qorp::ChromaIndex;
using qorp::ConstYv12Picture;
using qorp::PictureBytes;
using qorp::Yv12Picture;

enum class Plane { Y, V, U };

// Copies the w x h pixels of the YV12 frame src to (x, y) of the canvas, 1:1, as far as they lie
// inside it. x and y are even. Of an odd number of visible rows the last one keeps the canvas's
// chroma.
void CopyPictureClipped(const std::uint8_t* src, std::int32_t w, std::int32_t h,
                        const Yv12Picture& canvas, std::int32_t x, std::int32_t y);

// Sets the samples of one plane that cover the w x h luma pixels at (x, y) to value. What lies
// outside the canvas is not touched. A chroma sample that is shared with pixels outside the
// rectangle is set as well.
void FillPlaneRect(const Yv12Picture& canvas, Plane plane, std::int64_t x, std::int64_t y,
                   std::int32_t w, std::int32_t h, std::uint8_t value);
