// Keeps secrets out of messages.
#pragma once

#include <string>
#include <string_view>

namespace host::ffmpeg {

// The text with "***" in place of what opens a door, in every URL that it holds: user and password
// before the host's name ("rtsp://***@camera/1"), the values of query parameters that carry secrets
// ("passphrase=***", "token=***", ...), and the last part of an RTMP path, which is a stream key
// ("rtmp://server/live/***"). Everything else stays as it is. Works on a bare URL and on a line of
// a log alike.
std::string MaskCredentials(std::string_view text);

}  // namespace host::ffmpeg
