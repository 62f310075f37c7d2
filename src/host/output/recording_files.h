// RecordingFiles: the files into which one output is written, one after another.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "host/ffmpeg/file_output.h"

namespace host {

// "wall.mkv", or "wall-2.mkv", "wall-3.mkv" and so on: the first one that there is no file of.
std::string FreeName(const std::string& path);

// The name that was asked for, with date and time where it has conversions for them; then
// "wall-2.mkv", "wall-3.mkv" and so on: the first name that no file has. The number starts again
// with every other date and time. Owned by an output and called on its thread.
class RecordingFiles {
 public:
  // What becomes of a file that has the name of the first one.
  enum class Existing {
    kKept,      // it stays, and the recording gets the next name
    kReplaced,  // it is emptied
    kRefused,   // ... is a failure
  };

  // path: see config::ExpandFileName.
  RecordingFiles(std::string path, Existing existing);

  // Creates the next file. Throws ffmpeg::Error.
  std::unique_ptr<ffmpeg::FileOutput> Next();
  // The latest file was removed again, or holds nothing: the next one gets its name.
  void ForgetLatest();
  // For containers that write several files by themselves: the name now, whatever is there.
  std::string Name() const;
  // ... and the next one that there is no file of, unless files are replaced.
  std::string NextName();

  // Whether the latest file has another name than it should, because there was one.
  bool avoided() const { return avoided_; }

 private:
  const std::string path_;
  Existing existing_;  // of the next one
  std::string name_;   // of the latest file, without its number
  std::size_t number_ = 0;
  bool avoided_ = false;
  bool replaced_ = false;  // the latest file was there before
};

}  // namespace host
