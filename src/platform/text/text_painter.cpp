#include "platform/text/text_painter.h"

#include <algorithm>
#include <utility>

#include "platform/os/charset.h"
#include "platform/text/composite.h"
#include "platform/text/font_library.h"

namespace os {

PaintedText::PaintedText() = default;
PaintedText::PaintedText(PaintedText&& other) noexcept = default;

PaintedText::~PaintedText() {
  if (surface_ != nullptr) {
    surface_->Clear(ink_);
    const os::MutexLock guard(library_->lock());
    library_->TakeBack(std::move(surface_));
  }
}

const std::uint8_t* PaintedText::Coverage() const {
  return surface_ == nullptr ? nullptr : surface_->Rows().first;
}

std::ptrdiff_t PaintedText::Stride() const {
  return surface_ == nullptr ? 0 : surface_->Rows().stride;
}

void PaintedText::WriteArgb(std::uint8_t* to, std::ptrdiff_t stride) const {
  const PixelRows<std::uint8_t> target{to, stride};
  FillPixels(target, {0, 0, width_, height_}, ToBgra(clearColour_));
  if (surface_ == nullptr) {
    return;
  }
  if (IsCoverage()) {
    CompositeCoverage(surface_->Rows(), *colours_, ink_, target);
  } else {
    CompositeColour(surface_->Rows(), opacity_, clearColour_, ink_, target);
  }
}

namespace {

constexpr double kDotsPerInch = 96.0;
// More than any rectangle shows; bounds the time that one hostile text can take.
constexpr std::size_t kMaxUnits = 4096;

constexpr std::uint32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}

bool IsLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

// Replaces the content of utf8. An unpaired surrogate and a NUL, which would end the text there,
// become U+FFFD.
void ToUtf8(std::u16string_view text, std::string& utf8) {
  utf8.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = text[i];
    if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c & 0x3FF) << 10) + (text[i + 1] & 0x3FFU);
      ++i;
    } else if (c == 0 || IsHighSurrogate(text[i]) || IsLowSurrogate(text[i])) {
      c = kReplacement;
    }
    AppendUtf8(c, utf8);
  }
}

std::u16string_view Visible(std::u16string_view text) {
  if (text.size() <= kMaxUnits) {
    return text;
  }
  return text.substr(0, IsHighSurrogate(text[kMaxUnits - 1]) ? kMaxUnits - 1 : kMaxUnits);
}

ContextHandle MakeContext(PangoFontMap* map) {
  ContextHandle context(pango_font_map_create_context(map));
  const FontOptionsHandle options(cairo_font_options_create());
  cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
  cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_SLIGHT);
  cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_ON);
  pango_cairo_context_set_font_options(context.get(), options.get());
  pango_cairo_context_set_resolution(context.get(), kDotsPerInch);
  return context;
}

// A word that is broken between two lines gets no hyphen.
void SetAttributes(PangoLayout* layout) {
  PangoAttrList* const attributes = pango_attr_list_new();
  pango_attr_list_insert(attributes, pango_attr_insert_hyphens_new(FALSE));
  pango_layout_set_attributes(layout, attributes);
  pango_attr_list_unref(attributes);
}

int AscentOf(PangoContext* context, const PangoFontDescription* font) {
  PangoFontMetrics* const metrics = pango_context_get_metrics(context, font, nullptr);
  const int ascent = pango_font_metrics_get_ascent(metrics);
  pango_font_metrics_unref(metrics);
  return ascent;
}

// In layout units, from the left.
int LineStart(int lineWidth, int width, TextAlignment alignment) {
  switch (alignment) {
    case TextAlignment::kNear:
      return 0;
    case TextAlignment::kFar:
      return width - lineWidth;
    case TextAlignment::kCentre:
      return (width - lineWidth) / 2;
  }
  return 0;
}

bool HasColourGlyphs(const PangoLayoutLine* line) {
  for (const GSList* run = line->runs; run != nullptr; run = run->next) {
    const PangoGlyphString* const glyphs = static_cast<const PangoGlyphItem*>(run->data)->glyphs;
    for (int i = 0; i < glyphs->num_glyphs; ++i) {
      if (glyphs->glyphs[i].attr.is_color) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

// The objects of the library's font map are used with its lock held.
struct TextPainter::State {
  std::shared_ptr<FontLibrary> library;
  ContextHandle context;
  LayoutHandle layout;
  FontDescriptionHandle font;  // null until a font was found

  std::string family;  // family in use
  int ascent = 0;      // of the font, layout units
  std::string utf8;    // scratch

  // For the colours of the last painting.
  std::uint32_t textColour = 0;
  std::uint32_t clearColour = 0;
  CoverageTable colours{};

  void SetColours(const TextPainting& painting);
  void LayOut(const TextPainting& painting);
  bool LayoutHasColour() const;
  int BaselineShift(PangoLayoutIter* firstLine, int height) const;
  void Draw(cairo_t* cairo, const TextPainting& painting) const;
};

TextPainter::TextPainter(const std::string& privateFontFile) : state_(std::make_unique<State>()) {
  state_->library = FontLibrary::Get(privateFontFile);
  const os::MutexLock guard(state_->library->lock());
  if (PangoFontMap* const map = state_->library->Map()) {
    state_->context = MakeContext(map);
    state_->layout.reset(pango_layout_new(state_->context.get()));
    SetAttributes(state_->layout.get());
  }
}

TextPainter::~TextPainter() {
  const os::MutexLock guard(state_->library->lock());
  state_->font.reset();
  state_->layout.reset();
  state_->context.reset();
}

bool TextPainter::SetFont(std::u16string_view family, int points) {
  std::string name;
  ToUtf8(family, name);
  const os::MutexLock guard(state_->library->lock());
  if (state_->layout == nullptr) {
    return false;
  }
  if (!state_->library->HasInstalledFamily(name)) {
    name = state_->library->PrivateFamily();
  }
  if (name.empty()) {
    return false;
  }
  state_->font.reset(pango_font_description_new());
  pango_font_description_set_family(state_->font.get(), name.c_str());
  pango_font_description_set_size(state_->font.get(), std::max(points, 1) * PANGO_SCALE);
  pango_layout_set_font_description(state_->layout.get(), state_->font.get());
  state_->family = name;
  state_->ascent = AscentOf(state_->context.get(), state_->font.get());
  return true;
}

const std::string& TextPainter::FontFamily() const {
  return state_->family;
}

PaintedText TextPainter::Paint(const TextPainting& painting) {
  PaintedText painted;
  if (painting.width < 1 || painting.width > kMaxSide || painting.height < 1 ||
      painting.height > kMaxSide) {
    return painted;
  }
  State& state = *state_;
  state.SetColours(painting);
  painted.width_ = painting.width;
  painted.height_ = painting.height;
  painted.clearColour_ = painting.clearColour;
  painted.colours_ = &state.colours;
  if (painting.text.empty()) {
    return painted;
  }
  ToUtf8(Visible(painting.text), state.utf8);
  {
    const os::MutexLock guard(state.library->lock());
    if (state.font == nullptr) {
      return painted;
    }
    state.LayOut(painting);
    // Ordinary glyphs are drawn as coverage alone and get the text colour afterwards, exactly. Only
    // a text with colour glyphs is drawn in colour.
    auto content = DrawingSurface::Content::kCoverage;
    if (state.LayoutHasColour()) {
      content = DrawingSurface::Content::kColour;
      painted.colours_ = nullptr;
      painted.opacity_ = ToBgra(painting.textColour)[3];
    }
    painted.library_ = state.library;
    painted.surface_ = state.library->Lend();
    painted.surface_->Prepare(content, painting.width, painting.height);
    cairo_t* const cairo = painted.surface_->Cairo();
    const BgraPixel source = ToBgra(painting.textColour);
    cairo_set_source_rgb(cairo, source[2] / 255.0, source[1] / 255.0, source[0] / 255.0);
    // Coverages that overlap add up. For an opaque colour the default operator would draw the same,
    // but through an intermediate mask as soon as two glyphs may touch.
    cairo_set_operator(cairo, painted.IsCoverage() ? CAIRO_OPERATOR_ADD : CAIRO_OPERATOR_OVER);
    state.Draw(cairo, painting);
  }
  painted.ink_ = painted.surface_->FindInk();
  return painted;
}

int TextPainter::CountMissingGlyphs() const {
  const os::MutexLock guard(state_->library->lock());
  return state_->font == nullptr ? 0 : pango_layout_get_unknown_glyphs_count(state_->layout.get());
}

void TextPainter::State::SetColours(const TextPainting& painting) {
  // A new table is all zero, which is right for two colours that are 0.
  if (painting.textColour != textColour || painting.clearColour != clearColour) {
    textColour = painting.textColour;
    clearColour = painting.clearColour;
    FillCoverageTable(textColour, clearColour, colours);
  }
}

void TextPainter::State::LayOut(const TextPainting& painting) {
  pango_layout_set_text(layout.get(), utf8.data(), static_cast<int>(utf8.size()));
  if (painting.wrap) {
    pango_layout_set_width(layout.get(), painting.width * PANGO_SCALE);
    pango_layout_set_height(layout.get(), painting.height * PANGO_SCALE);
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
  } else {
    pango_layout_set_width(layout.get(), -1);
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_NONE);
  }
}

bool TextPainter::State::LayoutHasColour() const {
  for (const GSList* line = pango_layout_get_lines_readonly(layout.get()); line != nullptr;
       line = line->next) {
    if (HasColourGlyphs(static_cast<const PangoLayoutLine*>(line->data))) {
      return true;
    }
  }
  return false;
}

// Adjacent texts share the baseline of the font, although fallback fonts have ascents of their own.
// Never so far up that ink is cut off at the top, nor so far down that a line is cut off at the
// bottom.
int TextPainter::State::BaselineShift(PangoLayoutIter* firstLine, int height) const {
  PangoRectangle inked{};
  pango_layout_iter_get_line_extents(firstLine, &inked, nullptr);
  const int baseline = pango_layout_iter_get_baseline(firstLine);
  int textHeight = 0;
  pango_layout_get_size(layout.get(), nullptr, &textHeight);
  const int room = std::max(height * PANGO_SCALE - textHeight, 0);
  return std::min(std::max(ascent, baseline - inked.y) - baseline, room);
}

// Line by line: the layout's own alignment would change sides with the direction of the script and
// has no meaning without wrapping. The layout does not know the scale: it is laid out as for
// square pixels and every glyph is drawn narrower or flatter at its scaled place.
void TextPainter::State::Draw(cairo_t* cairo, const TextPainting& painting) const {
  cairo_identity_matrix(cairo);
  cairo_translate(cairo, painting.width / 2.0, painting.height / 2.0);
  cairo_scale(cairo, painting.scaleX, painting.scaleY);
  cairo_translate(cairo, -painting.width / 2.0, -painting.height / 2.0);
  const LayoutIterHandle lines(pango_layout_get_iter(layout.get()));
  const int down = BaselineShift(lines.get(), painting.height);
  do {
    PangoLayoutLine* const line = pango_layout_iter_get_line_readonly(lines.get());
    PangoRectangle logical{};
    pango_layout_iter_get_line_extents(lines.get(), nullptr, &logical);
    const int x = LineStart(logical.width, painting.width * PANGO_SCALE, painting.alignment);
    const int y = pango_layout_iter_get_baseline(lines.get()) + down;
    cairo_move_to(cairo, pango_units_to_double(x), pango_units_to_double(y));
    pango_cairo_show_layout_line(cairo, line);
  } while (pango_layout_iter_next_line(lines.get()) != FALSE);
  cairo_surface_flush(cairo_get_target(cairo));
}

}  // namespace os
