// Keeps secrets and control characters out of messages.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace host::ffmpeg {

// The text with "***" in place of what opens a door, in every URL that it holds: user and password
// before the host's name ("rtsp://***@camera/1"), the values of query parameters ("token=***",
// "hdnts=***", ...) but those that are known to be harmless ("latency=200"), and the last part of
// an RTMP path, which is a stream key ("rtmp://server/live/***"). Secrets that are remembered are
// replaced wherever they appear. Everything else stays as it is. Any thread.
std::string MaskCredentials(std::string_view text);

// The same of one URL by itself: blanks and quotes are part of it.
std::string MaskUrl(std::string_view url);

// Remembers what MaskUrl hides of a source or an output, and the values of those of its options
// that hold secrets, for MaskCredentials: FFmpeg's own lines name parts of a URL. Texts of less
// than four bytes are not remembered, because they are parts of many words. Any thread.
void RememberSecrets(std::string_view url, const std::map<std::string, std::string>& options);

// UTF-8 without control characters (C0, DEL, C1), line and paragraph separators and the characters
// that change the direction of the text around them: each becomes a blank. What is not UTF-8
// becomes U+FFFD.
std::string Printable(std::string_view text);

// The longest beginning of at most so many bytes that ends between two characters.
std::string_view CutToBytes(std::string_view text, std::size_t bytes);

// The same by columns of a terminal, one for each character.
std::string_view CutToColumns(std::string_view text, std::size_t columns);

}  // namespace host::ffmpeg
