#include "host/ffmpeg/error.h"

#include <array>

extern "C" {
#include <libavutil/error.h>
}

#include "host/ffmpeg/mask.h"

namespace host::ffmpeg {

std::string ErrorText(int code) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(code, text.data(), text.size());
  return text.data();
}

Error::Error(int code, const std::string& tried, const std::string& where) : code_(code) {
  message_ = tried;
  if (!where.empty()) {
    message_ += " \"" + MaskUrl(where) + "\"";
  }
  message_ += ": " + ErrorText(code);
}

int Check(int result, const char* tried, const std::string& where) {
  if (result < 0) {
    throw Error(result, tried, where);
  }
  return result;
}

}  // namespace host::ffmpeg
