// Pictures of single frames.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "host/units.h"

namespace host {

// Writes a packed YV12 picture (Y, V, U, stride = width, BT.601 studio range, even size) as a PNG
// file. The file appears whole or not at all: it is written beside its place and then renamed. A
// picture whose pixels are not square is stretched in width to the shape in which it is seen.
// Throws ffmpeg::Error, or std::filesystem::filesystem_error when the file cannot be written.
void WriteSnapshot(const std::filesystem::path& file, std::span<const std::uint8_t> yv12, int width,
                   int height, Ratio pixelAspect = {1, 1});

}  // namespace host
