// The level meters inside a window: a darkened panel with a light frame, one segmented bar for each
// audio channel, and a red box while an alarm is on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <tuple>
#include <vector>

#include "render/meter_look.h"
#include "render/yv12.h"

// A cache of tables of one kind, each made from a few numbers when it is first requested. Tables
// that were not requested during the last kKeep requests are dropped when a new one is made;
// nothing is allocated while the numbers stay the same. One thread at a time.
template <typename Table, std::size_t kNumbers>
class TableCache {
 public:
  using Key = std::array<std::int64_t, kNumbers>;
  static constexpr std::uint64_t kKeep = 1024;

  // The table is valid until the next call.
  const Table& Get(const Key& key) {
    ++requests_;
    for (Entry& entry : entries_) {
      if (entry.key == key) {
        entry.lastRequest = requests_;
        return entry.table;
      }
    }
    std::erase_if(entries_,
                  [this](const Entry& entry) { return requests_ - entry.lastRequest > kKeep; });
    return entries_.emplace_back(Entry{key, requests_, std::make_from_tuple<Table>(key)}).table;
  }
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    Key key;
    std::uint64_t lastRequest;
    Table table;
  };

  std::vector<Entry> entries_;
  std::uint64_t requests_ = 0;
};

// The layout of one meter, made for one drawing.
struct MeterPanel {
  // (x, y): the window's corner, in pixels; width: a tenth of the window's; channels: 0 or more.
  MeterPanel(const Yv12Picture& canvas, std::int32_t x, std::int32_t y, std::int32_t width,
             std::int32_t height, std::int32_t channels);

  // The last row of the bars.
  std::int64_t BarBottom() const { return y + height - 1 - margin; }

  Yv12Picture canvas;
  // Positions are 64 bits wide, so that a window far outside the canvas cannot overflow them.
  std::int64_t x;
  std::int64_t y;
  std::int32_t width;
  std::int32_t height;
  std::int64_t bandBottom;  // the row of the line under the top band
  std::int32_t margin = 2;  // between the frame and the bars
  std::int32_t gap = 3;     // between two bars
  std::int32_t barWidth = -1;
  std::int32_t barLength;  // rows
  std::int32_t channels;
};

// Rows of the canvas, bottom exclusive.
struct RowRange {
  std::int64_t top;
  std::int64_t bottom;
};
// The rows that a meter touches: those of its panel, and more where bars or peak markers extend
// beyond it: bars in low windows, and the marker of a peak far below its level, which lies partly
// below the window.
RowRange MeterRowsTouched(const MeterPanel& panel, std::span<const float> levels,
                          std::span<const float> peaks);

// How many of `length` rows a level or a peak reaches: 0 for -50 dB and below, length for 0 dB.
std::int32_t MeterRows(float value, std::int32_t length);

// Draws the meters of a mosaic, frame after frame. A panel's darkening and the rows of its bars are
// kept between frames; windows of the same size share them. Parts outside the canvas are not
// touched and cost neither time nor memory: a window may be of any size and anywhere.
//
// Owned by the mosaic drawer; one thread at a time.
class MeterDrawer {
 public:
  // Whether a panel of that size is visible at all.
  static bool Shows(std::int32_t width, std::int32_t height) { return width >= 1 && height >= 1; }
  // The meter of a window at (x, y) of the canvas, both even. width: a tenth of the window's,
  // height: the window's, in pixels; with either below 1 nothing is drawn. levels and peaks: one
  // for each channel, 1 is full scale; both are clamped to 0 to 1 and shown on a scale of 50
  // decibels. Without channels the panel has no bars.
  void Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y, std::int32_t width,
            std::int32_t height, std::span<const float> levels, std::span<const float> peaks,
            bool alarm);

 private:
  // Darkens the panel towards its corners and draws its frame and the line under the top band.
  void DrawMeterPanel(const MeterPanel& panel);
  // A bar with a peak marker for each channel of the panel.
  void DrawMeterBars(const MeterPanel& panel, std::span<const float> levels,
                     std::span<const float> peaks);
  // One bar from column `left` on, whose lowest `lit` rows reach up to the level.
  void DrawMeterBar(const MeterPanel& panel, std::int64_t left, std::int32_t lit);

  TableCache<VignetteTable, 8> vignettes_;
  TableCache<BarTable, 4> bars_;
  BarRows rows_{0};  // of the bar that is being drawn; they only grow
};
