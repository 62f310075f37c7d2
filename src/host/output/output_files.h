// The files that an output writes: names and segments of a recording, and the files of HLS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ffmpeg/outputs.h"
#include "host/output/muxer.h"
#include "host/units.h"

namespace host {

// "wall.mkv", or "wall-2.mkv", "wall-3.mkv" and so on: the first name that no file has.
std::string FreeName(const std::string& path);

// The name that was asked for, with date and time where it has conversions for them; then
// "wall-2.mkv", "wall-3.mkv" and so on: the first name that no file has. The number starts again
// whenever the date or time in the name changes. Owned by an output and called on its thread.
class RecordingFiles {
 public:
  // What happens to a file that has the first name.
  enum class Existing {
    kKept,      // it stays, and the recording gets the next name
    kReplaced,  // it is emptied
    kRefused,   // it is a failure
  };

  // path: see config::ExpandFileName.
  RecordingFiles(std::string path, Existing existing);

  // Creates the next file. Throws ffmpeg::Error.
  std::unique_ptr<ffmpeg::FileOutput> Next();
  // The latest file was removed again, or holds nothing: the next one gets its name.
  void ForgetLatest();
  // For containers that write several files by themselves: the name now, whether a file has it or
  // not.
  std::string Name() const;
  // The same, but the first name that no file has, unless files are replaced.
  std::string NextName();

  // Whether the latest file has another name because a file had the first one.
  bool avoided() const { return avoided_; }

 private:
  const std::string path_;
  Existing existing_;  // of the next one
  std::string name_;   // of the latest file, without its number
  std::size_t number_ = 0;
  bool avoided_ = false;
  bool replaced_ = false;  // the latest file was there before
};

// How long the files of a recording may be; 0: without that limit.
struct SegmentLimits {
  Time length = 0;
  std::int64_t bytes = 0;
};

// Files are cut at keyframes only: at the first one at which a file has the length, or at which
// another GOP as large as the last one would exceed the size. Counts the bytes of the packets; a
// container adds little. One thread.
class SegmentCutter {
 public:
  explicit SegmentCutter(SegmentLimits limits) : limits_(limits) {}

  // A file begins with the keyframe of that time.
  void Begin(Time time) {
    start_ = time;
    bytes_ = bytesAtKey_ = 0;
  }
  void Add(int bytes) { bytes_ += bytes; }
  // A keyframe is to be written; the first one begins the first file. time: when it is shown.
  // frame: its length.
  bool CutsBefore(Time time, Time frame) {
    if (!start_) {
      Begin(time);
      return false;
    }
    const bool isLong = limits_.length > 0 && time - *start_ >= limits_.length - frame / 2;
    const bool isLarge = limits_.bytes > 0 && 2 * bytes_ - bytesAtKey_ > limits_.bytes;
    bytesAtKey_ = bytes_;
    return time > *start_ && (isLong || isLarge);
  }

 private:
  const SegmentLimits limits_;
  std::optional<Time> start_;
  std::int64_t bytes_ = 0;       // of this file
  std::int64_t bytesAtKey_ = 0;  // ... up to the latest keyframe
};

// The files of an HLS output, for "wall.m3u8" with two channels:
//
//   wall.m3u8           the playlist to play: names the video and the renditions of audio
//   wall_video.m3u8     wall_video_00000.ts ...
//   wall_sound1.m3u8    wall_sound1_00000.ts ...   the first channel with audio
//   wall_sound2.m3u8    ...
//
// FFmpeg writes all but the first, which it could write only without the channels' names. Options
// of the operator take precedence over those that are chosen here. One thread, for one opening.
class HlsLayout {
 public:
  struct Kind {
    bool isLive = false;  // old segments are removed
    bool isKept = false;  // all segments stay, and the playlist has a new name
  };
  // An existing live playlist is continued after a discontinuity, with new segment numbers.
  // keyframes: the time between two. Throws ffmpeg::Error for a URL that is no file.
  HlsLayout(const Muxer::Settings& settings, Kind kind, Time keyframes);

  // In the order of the muxer's tracks.
  void AddAudio(const std::string& name, const std::string& language);
  // Sets the options of the muxer, before it starts.
  void Apply(Muxer& muxer) const;
  // Throws ffmpeg::Error when it cannot be written.
  void WritePlaylist(const AVCodecParameters& video, Ratio frameRate) const;

 private:
  struct Audio {
    std::string name;
    std::string language;
  };

  std::string Playlist(const AVCodecParameters& video, Ratio frameRate) const;

  const Muxer::Settings settings_;
  const std::filesystem::path playlist_;
  const Kind kind_;
  const Time keyframes_;
  std::vector<Audio> audios_;
};

}  // namespace host
