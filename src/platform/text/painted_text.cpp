#include "platform/text/painted_text.h"

#include <utility>

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

}  // namespace os
