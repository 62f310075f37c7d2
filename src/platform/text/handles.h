// Owning holders for the handles of the text libraries.
#pragma once

#include <memory>

#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>

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

}  // namespace os
