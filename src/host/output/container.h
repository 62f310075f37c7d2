// What is known of containers.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/units.h"

struct AVOutputFormat;

namespace host {

// By FFmpeg's name of it; where that is empty, by the scheme of the URL or the name of the file.
// Null when there is none.
const AVOutputFormat* FindContainer(const std::string& format, const std::string& url);
// FFmpeg's name of a container that a wrong name resembles, or that files with such an extension
// have ("mkv": "matroska").
std::optional<std::string> NearestContainer(const std::string& name);

// A container whose files are as long as what was written into them, whenever the program is
// killed.
struct Recording {
  std::map<std::string, std::string> options;  // that the container needs for it
  Time flushInterval = 0;  // how often it wants to be asked to finish what it has; 0: never
};
// None for a container whose files are of no use without their end. Of a container that writes no
// file, or several, it says nothing.
std::optional<Recording> RecordingIn(const AVOutputFormat& container);

// How long a transport stream leaves a decoder for what it receives before it is due (PTS against
// PCR), or shorter with less delay; 0 for other containers, HLS among them: its segments are there
// as a whole.
Time DecoderDelay(const AVOutputFormat& container, bool lowDelay);
// The options that such a stream needs beside it.
std::map<std::string, std::string> TransportOptions(const AVOutputFormat& container);

// Whether packets of a codec, AVCodecID, fit into a container, as far as the container says.
bool Holds(const AVOutputFormat& container, int codec);
// Whether audio of a codec goes into the container in AAC: browsers play nothing else in HLS, nor
// most servers in FLV.
bool WantsAac(const AVOutputFormat& container, int codec);
// "flv cannot hold hevc: it holds h264, flv1, ...", the latter as far as it can be encoded here.
std::string CannotHold(const AVOutputFormat& container, int codec);

// Options that neither the container nor the protocol of the URL knows, each with the known name
// that it resembles, if there is one.
std::map<std::string, std::optional<std::string>> UnknownOptions(
    const AVOutputFormat& container, const std::string& url,
    const std::map<std::string, std::string>& options);

}  // namespace host
