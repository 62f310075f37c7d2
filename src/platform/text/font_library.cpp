#include "platform/text/font_library.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include <pango/pangofc-fontmap.h>

#include "platform/os/process.h"

namespace os {

namespace {

// A text as large as a whole frame of 3840x2160 with colour glyphs.
constexpr std::size_t kMaxBytesKept = std::size_t{3840} * 2160 * 4;

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

// Absolute paths of the files of that bare name, in search order: in the current directory, beside
// the library or program that holds this code, beside the running program, in the folders of
// installed data.
std::vector<std::string> FindPrivateFontFiles(const std::string& bareName) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  std::vector<fs::path> folders{
      fs::current_path(ignored),
      fs::path(ModulePathOf(reinterpret_cast<const void*>(&FindPrivateFontFiles))).parent_path(),
      fs::path(ProgramPath()).parent_path(),
  };
  const std::vector<fs::path> installed = DataFolders();
  folders.insert(folders.end(), installed.begin(), installed.end());
  std::vector<std::string> files;
  for (const fs::path& folder : folders) {
    if (!folder.is_absolute()) {
      continue;
    }
    std::string file = fs::canonical(folder / bareName, ignored).string();
    if (ignored || !fs::is_regular_file(file, ignored)) {
      continue;
    }
    if (std::find(files.begin(), files.end(), file) == files.end()) {
      files.push_back(std::move(file));
    }
  }
  return files;
}

}  // namespace

void DrawingSurface::Prepare(Content content, int width, int height) {
  if (cairo_ != nullptr && content == content_ && width == width_ && height == height_) {
    return;
  }
  cairo_.reset();
  surface_.reset();
  const cairo_format_t format =
      content == Content::kCoverage ? CAIRO_FORMAT_A8 : CAIRO_FORMAT_ARGB32;
  content_ = content;
  stride_ = cairo_format_stride_for_width(format, width);
  width_ = width;
  height_ = height;
  const std::size_t bytes = static_cast<std::size_t>(stride_) * static_cast<std::size_t>(height);
  if (bytes > bytes_.size()) {
    bytes_.resize(bytes);
  }
  surface_.reset(
      cairo_image_surface_create_for_data(bytes_.data(), format, width, height, stride_));
  cairo_.reset(cairo_create(surface_.get()));
}

PixelBounds DrawingSurface::FindInk() const {
  PixelBounds ink = BoundsOfInk(Rows(), width_ * BytesPerPixel(), height_);
  ink.left /= BytesPerPixel();
  ink.right = (ink.right + BytesPerPixel() - 1) / BytesPerPixel();
  return ink;
}

void DrawingSurface::Clear(const PixelBounds& ink) {
  for (int y = ink.top; y < ink.bottom; ++y) {
    const std::ptrdiff_t left = std::ptrdiff_t{ink.left} * BytesPerPixel();
    std::fill_n(bytes_.data() + std::ptrdiff_t{y} * stride_ + left,
                (ink.right - ink.left) * BytesPerPixel(), std::uint8_t{0});
  }
}

std::shared_ptr<FontLibrary> FontLibrary::Get(const std::string& privateFontFile) {
  static Mutex registryLock;
  // Keyed by the files that the name stands for at the time
  static std::map<std::vector<std::string>, std::weak_ptr<FontLibrary>> registry;

  const std::vector<std::string> files = FindPrivateFontFiles(privateFontFile);
  const os::MutexLock guard(registryLock);
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
    // A font map that is freed would not release its reference to the configuration.
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
  if (surface->Bytes() <= kMaxBytesKept) {
    surfaces_.push_back(std::move(surface));
  }
}

}  // namespace os
