#include "host/session/composer_filter.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

#include "host/feed/feed_pin.h"
#include "platform/os/process.h"

namespace host {
namespace {

constexpr const char* kLibraryName = "QXCompose.ax";
constexpr ULONG kPinsPerInput = 6;
constexpr ULONG kAudioOutputPosition = 5;  // of the first input

// Frames wait in the composer for one second: after two, it has considered only frames with their
// type for a second.
constexpr double kStableSeconds = 2;

}  // namespace

std::string FindComposerLibrary() {
  std::error_code ignored;
  const std::filesystem::path program = os::ProgramPath();
  const std::filesystem::path installed = os::LibraryFolder();
  for (const std::filesystem::path& folder : {program.parent_path(), installed}) {
    if (std::filesystem::exists(folder / kLibraryName, ignored)) {
      return (folder / kLibraryName).string();
    }
  }
  for (const RegisteredFilter& filter : ListRegisteredFilters()) {
    if (filter.clsid == CLSID_TavrelComposer) {
      return filter.library;
    }
  }
  throw GraphError("the composer's library " + std::string(kLibraryName) + " is neither in " +
                   program.parent_path().string() + " or " + installed.string() +
                   " nor registered: run `tavrel register PATH/" + kLibraryName +
                   "` or name it with --library");
}

ComposerFilter::ComposerFilter(const std::string& library, const config::Canvas& canvas,
                               std::size_t windows, qorp::log::ILogPerf* logger)
    : loaded_(CreateFilter(library, CLSID_TavrelComposer)),
      command_(loaded_.filter.As<IComposeCommand>()) {
  if (!command_) {
    throw GraphError(library + " is not a composer: it takes no commands");
  }
  Check(command_->Configure(static_cast<int>(windows), logger, canvas.width, canvas.height,
                            canvas.aspect.num, canvas.aspect.den, canvas.preroll,
                            {canvas.frameRate.num, canvas.frameRate.den}),
        "configure the composer");
}

IPin* ComposerFilter::Pin(ULONG position) const {
  ComPtr<IEnumPins> pins;
  Check(loaded_.filter->EnumPins(pins.Put()), "enumerate the composer's pins");
  ComPtr<IPin> pin;
  if (pins->Skip(position) != S_OK || pins->Next(1, pin.Put(), nullptr) != S_OK) {
    return nullptr;
  }
  return pin.Get();
}

ComposerFilter::Input ComposerFilter::AddInput(LONG index, IComposeWindow* window) {
  Check(command_->AddInput(index, window), "add an input to the composer");
  Input input;
  Check(command_->GetInputPins(index, &input.video, &input.audio, &input.videoAlarm,
                               &input.audioAlarm, &input.text),
        "look up the pins of an input");
  input.audioOutput = Pin(kAudioOutputPosition + kPinsPerInput * static_cast<ULONG>(index));
  return input;
}

ComPtr<WallWindow> WallWindow::Create(std::shared_ptr<WindowSchedule> schedule, std::size_t index,
                                      Ratio frameRate) {
  return ComPtr<WallWindow>(
      std::make_unique<WallWindow>(std::move(schedule), index, frameRate).release());
}

WallWindow::WallWindow(std::shared_ptr<WindowSchedule> schedule, std::size_t index, Ratio frameRate)
    : CUnknown("wall window", nullptr),
      schedule_(std::move(schedule)),
      index_(index),
      stableFrames_(static_cast<int>(std::ceil(kStableSeconds * frameRate.value()))) {}

bool WallWindow::WantsType() const {
  const os::MutexLock guard(lock_);
  return shownFrames_ < stableFrames_;
}

void WallWindow::SetFrameSent() {
  const os::MutexLock guard(lock_);
  frameSent_ = true;
}

HRESULT WallWindow::GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                                   BYTE* selected) {
  // The state does not change until the next frame.
  const WindowState& state = schedule_->Ask(index_);
  const os::MutexLock guard(lock_);
  // The frame before this one has been composed.
  sizeKnown_ = sizeKnown_ || shownFrames_ > 0;
  shownFrames_ = state.isShown && frameSent_ ? std::min(shownFrames_ + 1, stableFrames_) : 0;
  *enabled = state.isShown ? 1 : 0;
  *x = state.place.x;
  *y = state.place.y;
  *colour = state.colour.empty() ? nullptr : state.colour.c_str();
  *selected = state.isSelected && state.isShown && sizeKnown_ ? 1 : 0;
  return S_OK;
}

}  // namespace host
