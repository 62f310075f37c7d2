// Keeps secrets and control characters out of messages.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace host::ffmpeg {

// The text with "***" in place of secrets, in every URL that it contains: user and password before
// the host name ("rtsp://***@camera/1"), the values of query parameters ("token=***", "hdnts=***",
// ...) except known harmless ones ("latency=200"), and the last part of an RTMP path, which is a
// stream key ("rtmp://server/live/***"). The texts of Secrets are replaced wherever they appear.
// Everything else stays unchanged. Any thread.
std::string MaskCredentials(std::string_view text);

// The same for a single URL: blanks and quotes are part of it.
std::string MaskUrl(std::string_view url);

// Has MaskCredentials hide what MaskUrl hides of a source or an output, and the values of its
// secret options: FFmpeg's log lines quote parts of a URL. They remain hidden afterwards until 1000
// later ones have been released, because a line may be late. Texts of less than four bytes are not
// hidden, because they are parts of many words. Held by whatever uses the URL; any thread.
class Secrets {
 public:
  Secrets(std::string_view url, const std::map<std::string, std::string>& options);
  ~Secrets();
  Secrets(const Secrets&) = delete;
  Secrets& operator=(const Secrets&) = delete;

 private:
  void Hide(std::string_view secret);

  std::vector<std::string> texts_;
};

// UTF-8 in which control characters (C0, DEL, C1), line and paragraph separators and characters
// that change the direction of text are replaced by blanks, and invalid bytes by U+FFFD.
std::string Printable(std::string_view text);

// The longest beginning of at most this many bytes that ends between two characters.
std::string_view CutToBytes(std::string_view text, std::size_t bytes);

// The same for columns of a terminal, one for each character.
std::string_view CutToColumns(std::string_view text, std::size_t columns);

}  // namespace host::ffmpeg
