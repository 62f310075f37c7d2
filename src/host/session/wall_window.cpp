#include "host/session/wall_window.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace host {
namespace {

// Frames wait in the composer for a second, so that those of the other second were all sent with
// their type and have all been considered.
constexpr double kStableSeconds = 2;

}  // namespace

ComPtr<WallWindow> WallWindow::Create(Placement placement, Ratio frameRate) {
  return ComPtr<WallWindow>(
      std::make_unique<WallWindow>(std::move(placement), frameRate).release());
}

WallWindow::WallWindow(Placement placement, Ratio frameRate)
    : CUnknown("wall window", nullptr),
      stableFrames_(static_cast<int>(std::ceil(kStableSeconds * frameRate.value()))),
      placement_(std::move(placement)) {}

void WallWindow::Place(Placement placement) {
  const std::lock_guard guard(lock_);
  placement_ = std::move(placement);
}

WallWindow::Placement WallWindow::placement() const {
  const std::lock_guard guard(lock_);
  return placement_;
}

bool WallWindow::WantsType() const {
  const std::lock_guard guard(lock_);
  return shownFrames_ < stableFrames_;
}

void WallWindow::SetFrameSent() {
  const std::lock_guard guard(lock_);
  frameSent_ = true;
}

HRESULT WallWindow::GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                                   BYTE* selected) {
  const std::lock_guard guard(lock_);
  askedColour_ = placement_.colour;
  // The frame before this one has been composed.
  sizeKnown_ = sizeKnown_ || shownFrames_ > 0;
  shownFrames_ = placement_.enabled && frameSent_ ? std::min(shownFrames_ + 1, stableFrames_) : 0;
  *enabled = placement_.enabled ? 1 : 0;
  *x = placement_.x;
  *y = placement_.y;
  *colour = askedColour_.empty() ? nullptr : askedColour_.c_str();
  *selected = placement_.selected && sizeKnown_ ? 1 : 0;
  return S_OK;
}

}  // namespace host
