// What stands behind the windows.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "host/config/wall.h"
#include "host/units.h"

namespace host {

// Whatever the wall's file asks for, as a packed YV12 picture of the canvas's size. Throws
// MediaError or ffmpeg::Error when a picture file cannot be used.
std::vector<std::uint8_t> MakeBackground(const config::Canvas& canvas);

// Packed YV12 pictures in BT.601 studio range, width and height even.
std::vector<std::uint8_t> ColourBackground(int width, int height, config::Rgb colour);
// From top at the first row to bottom at the last one.
std::vector<std::uint8_t> GradientBackground(int width, int height, config::Rgb top,
                                             config::Rgb bottom);
// A picture file, scaled over the whole canvas with its aspect kept, cut at the edges; of a moving
// one the first frame. Throws MediaError.
std::vector<std::uint8_t> FileBackground(int width, int height, Ratio pixelAspect,
                                         const std::filesystem::path& file);

}  // namespace host
