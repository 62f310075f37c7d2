#include "host/graph/wall_window.h"

#include <memory>

namespace host {

ComPtr<WallWindow> WallWindow::Create(Placement placement) {
  return ComPtr<WallWindow>(std::make_unique<WallWindow>(std::move(placement)).release());
}

WallWindow::WallWindow(Placement placement)
    : CUnknown("wall window", nullptr), placement_(std::move(placement)) {}

void WallWindow::Place(Placement placement) {
  const std::lock_guard guard(lock_);
  placement_ = std::move(placement);
}

WallWindow::Placement WallWindow::placement() const {
  const std::lock_guard guard(lock_);
  return placement_;
}

void WallWindow::SetPictureSent() {
  const std::lock_guard guard(lock_);
  pictureSent_ = true;
}

HRESULT WallWindow::GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                                   BYTE* selected) {
  const std::lock_guard guard(lock_);
  askedColour_ = placement_.colour;
  sizeKnown_ = sizeKnown_ || (placement_.enabled && pictureSent_);
  *enabled = placement_.enabled ? 1 : 0;
  *x = placement_.x;
  *y = placement_.y;
  *colour = askedColour_.empty() ? nullptr : askedColour_.c_str();
  *selected = placement_.selected && sizeKnown_ ? 1 : 0;
  return S_OK;
}

}  // namespace host
