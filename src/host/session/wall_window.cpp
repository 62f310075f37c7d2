#include "host/session/wall_window.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace host {
namespace {

// Pictures wait in the composer for a second, so that those of the other second were all sent with
// their type and have all been considered.
constexpr double kSettledSeconds = 2;

}  // namespace

ComPtr<WallWindow> WallWindow::Create(Placement placement, Ratio frameRate) {
  return ComPtr<WallWindow>(
      std::make_unique<WallWindow>(std::move(placement), frameRate).release());
}

WallWindow::WallWindow(Placement placement, Ratio frameRate)
    : CUnknown("wall window", nullptr),
      settledFrames_(static_cast<int>(std::ceil(kSettledSeconds * frameRate.value()))),
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
  return shownFrames_ < settledFrames_;
}

void WallWindow::SetPictureSent() {
  const std::lock_guard guard(lock_);
  pictureSent_ = true;
}

HRESULT WallWindow::GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                                   BYTE* selected) {
  const std::lock_guard guard(lock_);
  askedColour_ = placement_.colour;
  // The frame before this one has been composed.
  sizeKnown_ = sizeKnown_ || shownFrames_ > 0;
  shownFrames_ =
      placement_.enabled && pictureSent_ ? std::min(shownFrames_ + 1, settledFrames_) : 0;
  *enabled = placement_.enabled ? 1 : 0;
  *x = placement_.x;
  *y = placement_.y;
  *colour = askedColour_.empty() ? nullptr : askedColour_.c_str();
  *selected = placement_.selected && sizeKnown_ ? 1 : 0;
  return S_OK;
}

}  // namespace host
