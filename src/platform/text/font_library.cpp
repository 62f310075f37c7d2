#include "platform/text/font_library.h"

#include <map>
#include <utility>

#include <pango/pangofc-fontmap.h>

#include "platform/os/module.h"
#include "platform/text/private_font_file.h"

namespace os {

namespace {

// A text as large as a whole picture of 3840x2160 with colour glyphs.
constexpr std::size_t kMostBytesKept = std::size_t{3840} * 2160 * 4;

const FcChar8* FcText(const std::string& text) {
  return reinterpret_cast<const FcChar8*>(text.c_str());
}

// Family of the first font that the configuration holds besides the installed ones.
std::string FirstApplicationFamily(FcConfig* config) {
  const FcFontSet* const fonts = FcConfigGetFonts(config, FcSetApplication);
  FcChar8* family = nullptr;
  if (fonts == nullptr || fonts->nfont == 0 ||
      FcPatternGetString(fonts->fonts[0], FC_FAMILY, 0, &family) != FcResultMatch) {
    return {};
  }
  return reinterpret_cast<const char*>(family);
}

}  // namespace

std::shared_ptr<FontLibrary> FontLibrary::Get(const std::string& privateFontFile) {
  static std::mutex registryLock;
  // guarded by registryLock; keyed by the files that the name stands for at the time
  static std::map<std::vector<std::string>, std::weak_ptr<FontLibrary>> registry;

  const std::vector<std::string> files = FindPrivateFontFiles(privateFontFile);
  const std::lock_guard guard(registryLock);
  std::weak_ptr<FontLibrary>& known = registry[files];
  std::shared_ptr<FontLibrary> library = known.lock();
  if (library == nullptr) {
    library = std::make_shared<FontLibrary>(files);
    known = library;
  }
  return library;
}

FontLibrary::FontLibrary(const std::vector<std::string>& privateFontFiles) {
  // The object system under the font map registers types that point into its libraries' code.
  KeepModuleLoaded(reinterpret_cast<const void*>(&pango_cairo_font_map_new_for_font_type));

  config_.reset(FcInitLoadConfigAndFonts());
  if (config_ == nullptr) {
    return;
  }
  for (const std::string& file : privateFontFiles) {
    if (FcConfigAppFontAddFile(config_.get(), FcText(file)) == FcTrue) {
      privateFamily_ = FirstApplicationFamily(config_.get());
      if (!privateFamily_.empty()) {
        break;
      }
    }
  }
  map_.reset(pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT));
  if (map_ != nullptr) {
    pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(map_.get()), config_.get());
  }
}

FontLibrary::~FontLibrary() {
  if (map_ != nullptr) {
    // A map that goes away keeps its reference to the configuration.
    pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(map_.get()), nullptr);
  }
}

bool FontLibrary::HasInstalledFamily(const std::string& family) const {
  FcFontSet* installed =
      config_ == nullptr ? nullptr : FcConfigGetFonts(config_.get(), FcSetSystem);
  if (installed == nullptr || family.empty()) {
    return false;
  }
  const FcPatternHandle pattern(FcPatternCreate());
  const FcObjectSetHandle nothing(FcObjectSetCreate());
  if (pattern == nullptr || nothing == nullptr ||
      FcPatternAddString(pattern.get(), FC_FAMILY, FcText(family)) == FcFalse) {
    return false;
  }
  const FcFontSetHandle found(
      FcFontSetList(config_.get(), &installed, 1, pattern.get(), nothing.get()));
  return found != nullptr && found->nfont > 0;
}

std::unique_ptr<DrawingSurface> FontLibrary::Lend() {
  if (surfaces_.empty()) {
    return std::make_unique<DrawingSurface>();
  }
  std::unique_ptr<DrawingSurface> surface = std::move(surfaces_.back());
  surfaces_.pop_back();
  return surface;
}

void FontLibrary::TakeBack(std::unique_ptr<DrawingSurface> surface) {
  if (surface->Bytes() <= kMostBytesKept) {
    surfaces_.push_back(std::move(surface));
  }
}

}  // namespace os
