// FontLibrary: what painters share, the fonts and the surfaces that text is drawn into. Owning
// holders for the handles of the text libraries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>

#include "platform/os/mutex.h"
#include "platform/text/composite.h"

namespace os {

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct FontDescriptionFree {
  void operator()(PangoFontDescription* description) const {
    pango_font_description_free(description);
  }
};
struct LayoutIterFree {
  void operator()(PangoLayoutIter* iter) const { pango_layout_iter_free(iter); }
};
struct FontOptionsDestroy {
  void operator()(cairo_font_options_t* options) const { cairo_font_options_destroy(options); }
};
struct SurfaceDestroy {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct CairoDestroy {
  void operator()(cairo_t* cairo) const { cairo_destroy(cairo); }
};
struct FcConfigDestroyer {
  void operator()(FcConfig* config) const { FcConfigDestroy(config); }
};
struct FcPatternDestroyer {
  void operator()(FcPattern* pattern) const { FcPatternDestroy(pattern); }
};
struct FcObjectSetDestroyer {
  void operator()(FcObjectSet* set) const { FcObjectSetDestroy(set); }
};
struct FcFontSetDestroyer {
  void operator()(FcFontSet* set) const { FcFontSetDestroy(set); }
};

using FontMapHandle = std::unique_ptr<PangoFontMap, GObjectUnref>;
using ContextHandle = std::unique_ptr<PangoContext, GObjectUnref>;
using LayoutHandle = std::unique_ptr<PangoLayout, GObjectUnref>;
using FontDescriptionHandle = std::unique_ptr<PangoFontDescription, FontDescriptionFree>;
using LayoutIterHandle = std::unique_ptr<PangoLayoutIter, LayoutIterFree>;
using FontOptionsHandle = std::unique_ptr<cairo_font_options_t, FontOptionsDestroy>;
using SurfaceHandle = std::unique_ptr<cairo_surface_t, SurfaceDestroy>;
using CairoHandle = std::unique_ptr<cairo_t, CairoDestroy>;
using FcConfigHandle = std::unique_ptr<FcConfig, FcConfigDestroyer>;
using FcPatternHandle = std::unique_ptr<FcPattern, FcPatternDestroyer>;
using FcObjectSetHandle = std::unique_ptr<FcObjectSet, FcObjectSetDestroyer>;
using FcFontSetHandle = std::unique_ptr<FcFontSet, FcFontSetDestroyer>;

// A bitmap that is zero outside the ink of its text. A font library owns it and lends it to one
// text at a time. It is prepared, drawn into and destroyed with the library's lock held, because
// cairo takes the glyphs from the library's caches; the owner of the text does the rest without a
// lock.
class DrawingSurface {
 public:
  enum class Content {
    kCoverage,  // one byte a pixel
    kColour,    // native 32-bit pixels A, R, G, B, colours multiplied by alpha
  };

  // Allocates only for a text larger than any before.
  void Prepare(Content content, int width, int height);
  cairo_t* Cairo() const { return cairo_.get(); }

  PixelRows<const std::uint8_t> Rows() const { return {bytes_.data(), stride_}; }
  PixelBounds FindInk() const;
  // Makes it all zero again.
  void Clear(const PixelBounds& ink);

  std::size_t Bytes() const { return bytes_.size(); }

 private:
  int BytesPerPixel() const { return content_ == Content::kCoverage ? 1 : 4; }

  std::vector<std::uint8_t> bytes_;
  SurfaceHandle surface_;  // refers to bytes_
  CairoHandle cairo_;      // refers to surface_
  Content content_ = Content::kCoverage;
  int stride_ = 0;
  int width_ = 0;
  int height_ = 0;
};

// The installed fonts and one private font file, with the font map that finds, loads and keeps
// them. The private font is known to this library's own configuration only: neither the process's
// default configuration nor another library ever sees it.
//
// Shared by all painters of one private font file, so that a wall of labels loads each font and
// draws each glyph once. Everything that is made from the font map (contexts, layouts, fonts)
// touches the map's caches: on any thread, the text libraries are called with lock() held.
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

  Mutex& lock() RETURN_CAPABILITY(lock_) { return lock_; }

  // Whether exactly this family is installed, ignoring case.
  bool HasInstalledFamily(const std::string& family) const REQUIRES(lock_);
  // First family of the private font file; empty when there is no usable one.
  const std::string& PrivateFamily() const { return privateFamily_; }
  PangoFontMap* Map() const REQUIRES(lock_) { return map_.get(); }

  // A surface to draw a text into, all zero when it is lent and when it is returned. As many are
  // kept as were lent at the same time, except very large ones.
  std::unique_ptr<DrawingSurface> Lend() REQUIRES(lock_);
  void TakeBack(std::unique_ptr<DrawingSurface> surface) REQUIRES(lock_);

 private:
  Mutex lock_;
  FcConfigHandle config_ GUARDED_BY(lock_);
  FontMapHandle map_ GUARDED_BY(lock_);
  std::string privateFamily_;  // set once
  // The last one returned is lent first: its memory is the most likely to be in the cache.
  std::vector<std::unique_ptr<DrawingSurface>> surfaces_ GUARDED_BY(lock_);
};

}  // namespace os
