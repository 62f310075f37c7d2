// Why a source cannot be opened or read further.
#pragma once

#include <string>
#include <utility>

#include "util/exceptions.h"

namespace host {

class MediaError : public TavrelException {
 public:
  enum class Kind {
    kNotFound,   // no such file
    kNotMedia,   // opened, but nothing that FFmpeg knows
    kNoStreams,  // neither video nor audio that can be decoded
    kTimedOut,   // no data within the limit
    kCancelled,  // the reader was told to stop
    kFailed,     // anything else: refused, unreachable, broken connection, ...
  };

  // reason: one short sentence without the source, fit for a slate. source: masked already.
  MediaError(Kind kind, std::string reason, const std::string& source)
      : kind_(kind), reason_(std::move(reason)), message_("\"" + source + "\": " + reason_) {}

  Kind kind() const { return kind_; }
  const std::string& reason() const { return reason_; }
  // The source in quotes and the reason.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  Kind kind_;
  std::string reason_;
  std::string message_;
};

}  // namespace host
