// Containers: which one a target gets, what fits into it, and its options.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/units.h"

struct AVOutputFormat;

namespace host {

// Finds a container by FFmpeg's name; where that is empty, by the scheme of the URL or the name of
// the file. Null when there is none.
const AVOutputFormat* FindContainer(const std::string& format, const std::string& url);
// FFmpeg's name of the container that a wrong name resembles, or that belongs to a file extension
// ("mkv": "matroska").
std::optional<std::string> NearestContainer(const std::string& name);

// How a container is written so that its file can be played whenever the program is killed.
struct Recording {
  std::map<std::string, std::string> options;  // of the container
  Time flushInterval = 0;                      // how often the container is flushed; 0: never
};
// None for a container whose files cannot be played without their trailer. For containers that
// write a single file only.
std::optional<Recording> RecordingIn(const AVOutputFormat& container);

// How far the PTS of a transport stream are ahead of its PCR: the time that a decoder has to
// receive a frame. Shorter with lowDelay; 0 for other containers, HLS among them: its segments
// arrive whole.
Time DecoderDelay(const AVOutputFormat& container, bool lowDelay);
// The options that such a stream needs besides.
std::map<std::string, std::string> TransportOptions(const AVOutputFormat& container);

// Whether a container can hold a codec (AVCodecID), as far as FFmpeg knows.
bool Holds(const AVOutputFormat& container, int codec);
// Whether audio of a codec is encoded to AAC for the container: browsers play nothing else in HLS,
// and most servers take nothing else in FLV.
bool WantsAac(const AVOutputFormat& container, int codec);
// "flv cannot hold hevc: it holds h264, flv1, ...", listing what can be encoded here.
std::string CannotHold(const AVOutputFormat& container, int codec);

// Options that neither the container nor the protocol of the URL knows, each with the known name
// that it resembles, if there is one.
std::map<std::string, std::optional<std::string>> UnknownOptions(
    const AVOutputFormat& container, const std::string& url,
    const std::map<std::string, std::string>& options);

}  // namespace host
