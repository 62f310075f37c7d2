// WallWindow: what the composer asks about a channel's window on every frame.
#pragma once

#include <mutex>
#include <string>

#include "filter/i_compose_command.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com_ptr.h"

namespace host {

// Placed by the application's thread, asked by the composition thread.
class WallWindow final : public CUnknown, public IComposeWindow {
 public:
  DECLARE_IUNKNOWN

  struct Placement {
    bool enabled = true;
    int x = 0;  // canvas pixels
    int y = 0;
    std::string colour;  // of the label, in one of the composer's forms; empty: as it is
    bool selected = false;
  };

  static ComPtr<WallWindow> Create(Placement placement);
  explicit WallWindow(Placement placement);

  void Place(Placement placement);
  Placement placement() const;
  // A picture has reached the composer: it knows the window's size from the next frame on in which
  // the window is enabled. Until then nothing is selected.
  void SetPictureSent();

  HRESULT GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                         BYTE* selected) override;

 private:
  mutable std::mutex lock_;
  Placement placement_;       // guarded by lock_
  bool pictureSent_ = false;  // guarded by lock_
  bool sizeKnown_ = false;    // composition thread only
  std::string askedColour_;   // composition thread only: what the last answer points to
};

}  // namespace host
