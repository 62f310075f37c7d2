// The same content in several sizes: those that a source offers, by an HLS master playlist or by
// the wall file (FindVariants), and the one that is right for a window (RenditionSet).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/channel/window_schedule.h"
#include "host/config/wall.h"
#include "host/ffmpeg/io_deadline.h"
#include "host/units.h"

namespace host {

// One variant. Its address is absolute and no less restricted than that of the playlist: over HTTP
// it leads to HTTP only, from a local playlist to files beside it or below it.
struct PlaylistVariant {
  std::string source;  // URL or path of its media playlist
  int width = 0;       // pixels; 0: not announced
  int height = 0;
  std::int64_t bandwidth = 0;  // bits per second
  // If its audio has a playlist of its own: a master playlist of this variant alone. Otherwise
  // empty.
  std::string playlist;
};

// Limits for the text, which is not trusted.
inline constexpr std::size_t kMaxPlaylistBytes = 256 << 10;
inline constexpr std::size_t kMaxPlaylistLine = 4096;  // bytes
inline constexpr std::size_t kMaxPlaylistVariants = 64;

// Whether a path or URL looks like that of an HLS playlist.
bool MayBePlaylist(std::string_view source);

// The variants with video of a master playlist that was found at this path or URL. None for any
// other text, and for a playlist with anything unknown or forbidden in it: FFmpeg then opens it.
std::optional<std::vector<PlaylistVariant>> ReadVariants(std::string_view text,
                                                         std::string_view location);

// The variants of a channel, at least one: its several sources, or those of its master playlist,
// which is fetched within the open limit. Blocks; any thread may cancel the deadline. Throws
// MediaError when the playlist does not arrive in time.
std::vector<PlaylistVariant> FindVariants(const config::Channel& channel,
                                          ffmpeg::IoDeadline& deadline);

// The size in which a channel is shown. Any thread sets and reads it.
class WantedSize {
 public:
  explicit WantedSize(WindowSize size) { Set(size); }

  // Each side 1 to 65535.
  void Set(WindowSize size) {
    packed_.store(static_cast<std::uint32_t>(size.width) << 16 |
                      (static_cast<std::uint32_t>(size.height) & 0xFFFF),
                  std::memory_order_relaxed);
  }
  WindowSize Get() const {
    const std::uint32_t packed = packed_.load(std::memory_order_relaxed);
    return {static_cast<int>(packed >> 16), static_cast<int>(packed & 0xFFFF)};
  }

 private:
  std::atomic<std::uint32_t> packed_{0};
};

// The right rendition is the smallest that is at least as large as its window, or the largest if
// none is; of several with one size, that of the highest bit rate. Then follow the next larger, the
// next smaller and those of unknown size. One that failed is excluded for a while, which doubles
// with every failure. Sizes and failures are remembered by address when the set is assigned again.
//
// Owned by a channel's reader and used on its thread.
class RenditionSet {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kMinPause{2};
  static constexpr std::chrono::seconds kMaxPause{120};

  // pixelAspect: of the canvas.
  explicit RenditionSet(Ratio pixelAspect) : pixelAspect_(pixelAspect) {}

  // The renditions that the source offers, at least one.
  void Assign(std::vector<PlaylistVariant> renditions);
  std::size_t size() const { return renditions_.size(); }
  const PlaylistVariant& operator[](std::size_t index) const { return renditions_[index]; }

  // The size of its frames; width 0: it has no video, and is always excluded.
  void Learn(std::size_t index, int width, int height);
  void Failed(std::size_t index, Clock::time_point now);
  // It has been read for long enough to forget its failures.
  void Succeeded(std::size_t index);

  // All, the right one first; those that are excluded now come last.
  std::vector<std::size_t> Order(WindowSize window, Clock::time_point now) const;
  bool IsLeftOut(std::size_t index, Clock::time_point now) const;
  // The right one of those that are not excluded; none when all are.
  std::optional<std::size_t> Best(WindowSize window, Clock::time_point now) const;
  // One whose size is still unknown.
  std::optional<std::size_t> Unknown(Clock::time_point now) const;

 private:
  struct Memory {
    std::optional<WindowSize> size{};  // of its frames
    bool hasNoVideo = false;
    int failures = 0;  // in a row
    Clock::time_point leftOutUntil{};
  };

  bool IsKnown(std::size_t index) const { return renditions_[index].width > 0; }
  bool Suffices(std::size_t index, WindowSize window) const;
  Memory& Of(std::size_t index) { return memory_[renditions_[index].source]; }
  const Memory* Find(std::size_t index) const;

  const Ratio pixelAspect_;
  std::vector<PlaylistVariant> renditions_;
  std::map<std::string, Memory> memory_;  // by source
};

}  // namespace host
