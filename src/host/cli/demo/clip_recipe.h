// What a made clip shows and sounds like.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/units.h"

namespace host {

// Pictures and audio come from chains of filters in FFmpeg's notation that need no input, for
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

// The channels of `tavrel demo`: all different in picture, audio, codec, rate and shape, each of
// the given length.
std::vector<ClipRecipe> BuiltInChannels(Time length);

}  // namespace host
