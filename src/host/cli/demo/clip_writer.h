// Makes clips from recipes.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "host/units.h"

namespace host {

// Video and audio come from chains of filters in FFmpeg's notation that need no input, for
// example "testsrc2=size=320x180:rate=25"; an empty chain leaves the stream out.
struct ClipRecipe {
  std::string name;  // becomes the title, or the service name of a transport stream
  std::string pictures;
  std::string audio;
  std::string videoCodec = "h264";                  // FFmpeg's name of a codec or of an encoder
  std::map<std::string, std::string> videoOptions;  // of the encoder
  std::string audioCodec = "aac";
  std::map<std::string, std::string> audioOptions;
  std::string language;            // of the audio, ISO 639
  std::string extension = ".mkv";  // the container that suits it
  std::map<std::string, std::string> containerOptions;
  Time length = 10 * kSecond;
};

// The channels of `tavrel demo`: all different in video, audio, codec, rate and shape, each of
// the given length.
std::vector<ClipRecipe> BuiltInChannels(Time length);

// Writes the clip; the name of the file determines the container. The same recipe gives the same
// frames and audio samples each time. Throws ffmpeg::Error.
void WriteClip(const ClipRecipe& recipe, const std::filesystem::path& file);

// Writes all clips into a folder, named "01-name" and so on with their extensions, on as many
// threads as there are processors, and returns the files in the order of the recipes. Throws the
// first failure, after all threads have ended.
std::vector<std::filesystem::path> WriteClips(const std::vector<ClipRecipe>& recipes,
                                              const std::filesystem::path& folder);

}  // namespace host
