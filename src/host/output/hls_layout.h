// HlsLayout: the files of an HLS output.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/output/muxer.h"
#include "host/units.h"

namespace host {

// For "wall.m3u8" with two channels:
//
//   wall.m3u8           the playlist to play: names the video and the renditions of sound
//   wall_video.m3u8     wall_video_00000.ts ...
//   wall_sound1.m3u8    wall_sound1_00000.ts ...   the first channel with sound
//   wall_sound2.m3u8    ...
//
// FFmpeg writes all but the first, which it could write only without the channels' names. Options
// of the operator go before those that are chosen here. One thread, for one opening.
class HlsLayout {
 public:
  struct Kind {
    bool isLive = false;  // old segments are removed
    bool isKept = false;  // none is, and its name is new
  };
  // A live playlist that is there is continued behind a discontinuity under numbers that none of
  // its segments had. keyframes: the time between two. Throws ffmpeg::Error for a URL that is no
  // file.
  HlsLayout(const Muxer::Settings& settings, Kind kind, Time keyframes);

  // In the order of the muxer's tracks.
  void AddAudio(const std::string& name, const std::string& language);
  // Tells the muxer; before it starts.
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
