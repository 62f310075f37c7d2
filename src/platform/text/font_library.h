// FontLibrary: the fonts that text is painted with.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/text/drawing_surface.h"
#include "platform/text/handles.h"

namespace os {

// The installed fonts and one private font file, with the font map that finds, loads and keeps
// them. The private font is known to this library's own configuration only: neither the process's
// default configuration nor another library ever sees it.
//
// Shared by all painters of one private font file, so that a wall of labels loads each font and
// draws each glyph once. Everything that is made from the font map (contexts, layouts, fonts)
// touches the map's caches: its makers call the text libraries with lock() held, from whichever
// thread they are on.
class FontLibrary {
 public:
  // The library of that private font file, found by its bare name; made when there is none. Called
  // on any thread.
  static std::shared_ptr<FontLibrary> Get(const std::string& privateFontFile);

  // Tries the files in order and keeps the first one that holds a font.
  explicit FontLibrary(const std::vector<std::string>& privateFontFiles);
  ~FontLibrary();
  FontLibrary(const FontLibrary&) = delete;
  FontLibrary& operator=(const FontLibrary&) = delete;

  std::mutex& lock() { return lock_; }

  // The rest is called with lock() held.

  // Whether that very family is among the installed fonts. Letter case is no difference.
  bool HasInstalledFamily(const std::string& family) const;
  // First family of the private font file; empty when there is no usable one.
  const std::string& PrivateFamily() const { return privateFamily_; }
  PangoFontMap* Map() const { return map_.get(); }

  // A surface to draw a text into, and its return, all zero. As many are kept as were ever lent at
  // the same time, and no large one.
  std::unique_ptr<DrawingSurface> Lend();
  void TakeBack(std::unique_ptr<DrawingSurface> surface);

 private:
  std::mutex lock_;
  FcConfigHandle config_;      // guarded by lock_
  FontMapHandle map_;          // guarded by lock_
  std::string privateFamily_;  // set once
  // The last one returned is lent first: its memory is the most likely to be in the cache.
  std::vector<std::unique_ptr<DrawingSurface>> surfaces_;  // guarded by lock_
};

}  // namespace os
