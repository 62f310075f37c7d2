// A failed call of FFmpeg.
#pragma once

#include <string>

#include "util/exceptions.h"

namespace host::ffmpeg {

// FFmpeg's text for an error code, for example "Connection refused".
std::string ErrorText(int code);

// A failed FFmpeg call: what was tried, on what (credentials are masked), and FFmpeg's reason.
class Error : public TavrelException {
 public:
  // What was tried reads like "cannot open"; where may be empty.
  Error(int code, const std::string& tried, const std::string& where = {});

  const char* what() const noexcept override { return message_.c_str(); }
  // The AVERROR code.
  int code() const { return code_; }
  // The reason alone, without what was tried.
  std::string reason() const { return ErrorText(code_); }

 private:
  int code_;
  std::string message_;
};

// Passes a result that is not negative on, throws Error for the others.
int Check(int result, const char* tried, const std::string& where = {});

}  // namespace host::ffmpeg
