// One line that says how far a command has come.
#pragma once

#include <algorithm>
#include <ostream>
#include <string>

#include "host/ffmpeg/printable.h"

namespace host::cli {

// Shown only where somebody watches; the line is rewritten in place and wiped before anything else
// is printed. One thread.
class ProgressLine {
 public:
  ProgressLine(std::ostream& stream, bool shown) : stream_(stream), shown_(shown) {}
  ~ProgressLine() { Wipe(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // columns: of the terminal; a longer line would stay there when it is rewritten.
  void Show(const std::string& line, int columns) {
    const std::string text(
        ffmpeg::CutToColumns(line, static_cast<std::size_t>(std::max(columns, 0))));
    if (shown_ && text != text_) {
      stream_.clear();  // one that failed is tried again
      stream_ << "\r\x1b[K" << text << std::flush;
      text_ = text;
    }
  }
  void Wipe() {
    if (!text_.empty()) {
      stream_ << "\r\x1b[K" << std::flush;
      text_.clear();
    }
  }

 private:
  std::ostream& stream_;
  const bool shown_;
  std::string text_;
};

}  // namespace host::cli
