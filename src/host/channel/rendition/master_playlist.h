// Variants: the same content in several sizes, by an HLS master playlist or by the wall file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/wall.h"
#include "host/ffmpeg/io_deadline.h"

namespace host {

// One variant. Its address is absolute and as trusted as that of the playlist: over HTTP it leads
// to HTTP only, from a local playlist to files beside it or below it.
struct PlaylistVariant {
  std::string source;  // URL or path of its media playlist
  int width = 0;       // pixels; 0: not announced
  int height = 0;
  std::int64_t bandwidth = 0;  // bits per second
  // Where its audio has a playlist of its own: a master playlist of this variant alone. Otherwise
  // empty.
  std::string playlist;
};

// The text may come from a stranger: nothing beyond these is read.
inline constexpr std::size_t kMaxPlaylistBytes = 256 << 10;
inline constexpr std::size_t kMaxPlaylistLine = 4096;  // bytes
inline constexpr std::size_t kMaxPlaylistVariants = 64;

// Whether a path or URL reads as that of an HLS playlist.
bool MayBePlaylist(std::string_view source);

// The variants with video of a master playlist that was found at that path or URL. None for every
// other text, one with anything in it that is not understood or not allowed included: FFmpeg then
// deals with it.
std::optional<std::vector<PlaylistVariant>> ReadVariants(std::string_view text,
                                                         std::string_view location);

// The variants of a channel, at least one: its several sources, or those of its master playlist,
// which is fetched for that within the open limit. Blocks; the deadline may be cancelled by any
// thread. Throws MediaError when the playlist does not come in time.
std::vector<PlaylistVariant> FindVariants(const config::Channel& channel,
                                          ffmpeg::IoDeadline& deadline);

}  // namespace host
