// The meters of a mosaic, drawn frame after frame.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "render/meter_tables.h"
#include "render/meters.h"

// Tables of one kind, each made from two numbers when it is first asked for. Tables that have not
// been asked for during the last kKeep requests go when a new one is made; nothing is allocated
// while the numbers stay the same.
template <typename Table>
class TableShelf {
 public:
  static constexpr std::uint64_t kKeep = 1024;

  // Valid until the next call.
  const Table& Get(std::int32_t a, std::int32_t b) {
    ++requests_;
    for (Entry& entry : entries_) {
      if (entry.a == a && entry.b == b) {
        entry.lastRequest = requests_;
        return entry.table;
      }
    }
    std::erase_if(entries_,
                  [this](const Entry& entry) { return requests_ - entry.lastRequest > kKeep; });
    return entries_.emplace_back(Entry{a, b, requests_, Table(a, b)}).table;
  }
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    std::int32_t a;
    std::int32_t b;
    std::uint64_t lastRequest;
    Table table;
  };

  std::vector<Entry> entries_;
  std::uint64_t requests_ = 0;
};

// Draws whole meters with the bytes of the operations of meters.h, for a fraction of their time: a
// panel's darkening and the rows of its bars depend on the place and the size of the panel only and
// are kept between frames. Windows of the same size share them.
//
// Owned by whoever composes the frames; one thread at a time.
class MeterDrawer {
 public:
  // The meter of a window at (x, y) of the canvas. width: a tenth of the window's, height: the
  // window's, in pixels; with either below 1 nothing is drawn. levels and peaks: one for each
  // channel, 1 is full scale; without channels the panel has no bars.
  void Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y, std::int32_t width,
            std::int32_t height, std::span<const float> levels, std::span<const float> peaks,
            bool alarm);

 private:
  void DrawPanel(const MeterPanel& panel);
  void DrawBars(const MeterPanel& panel, std::span<const float> levels,
                std::span<const float> peaks);

  TableShelf<VignetteTable> vignettes_;  // by width and height
  TableShelf<BarTable> bars_;            // by the row of the foot and the length
  BarRows shown_{0};                     // of the bar that is being drawn; grows only
};
