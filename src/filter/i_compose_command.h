// The composer's private interfaces: how a host configures it and places its windows.
#pragma once

#include "log/i_log_perf.h"
#include "platform/com/com.h"
#include "platform/dshow/filters.h"
#include "util/ratio.h"

inline constexpr CLSID CLSID_TavrelComposer{
    0xAEC64A13, 0x679E, 0x41A5, {0x83, 0x0B, 0x9C, 0xC2, 0x91, 0x4A, 0x92, 0x69}};
inline constexpr IID IID_IComposeCommand{
    0x5BDF1B13, 0x1477, 0x4575, {0xB5, 0x29, 0xBE, 0x4F, 0xDB, 0x3D, 0x5C, 0x1C}};

// Implemented by the host, one object for each input; never queried for another interface. The
// composition thread polls it once on every frame.
class IComposeWindow : public IUnknown {
 public:
  // enabled: non-zero shows the window's frame and meter. x, y: its top-left corner in canvas
  // pixels (made even, towards zero). colour: a zero-terminated text, #RGB, #ARGB, #RRGGBB or
  // #AARRGGBB, valid until the next call; null leaves the label's colour as it is. selected:
  // non-zero draws the selection border. A failure drops the frame and is logged.
  virtual HRESULT GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                                 BYTE* selected) = 0;

 protected:
  ~IComposeWindow() = default;
};

// The composer's only configuration. Called from the application's thread while the graph is
// stopped, in this order: Configure once, AddInput for 0, 1, 2 ... without gaps, then connect.
class IComposeCommand : public IUnknown {
 public:
  // windowCount: more than every input index. logger: not owned, must outlive the filter; null
  // keeps the composer's own. width, height: the canvas in pixels, equal to the background's.
  // aspect: the display aspect ratio. prerollPeriod: 100 ns units, 0 for none. frameRate: frames
  // per second, for preroll marking only. E_INVALIDARG for a negative count or an aspect of 0:0,
  // E_FAIL (logged) when the drawing engine cannot be made, E_OUTOFMEMORY or the system's error
  // when memory or a thread is refused; otherwise the composition thread has been started.
  virtual HRESULT Configure(LONG windowCount, qorp::log::ILogPerf* logger, LONG width, LONG height,
                            LONG aspectNumerator, LONG aspectDenominator,
                            REFERENCE_TIME prerollPeriod, const qorp::Ratio& frameRate) = 0;
  // Makes the six pins of an input, or replaces them. window: an IComposeWindow, or null for an
  // input that is never shown. E_OUTOFMEMORY changes nothing.
  virtual HRESULT AddInput(LONG index, IUnknown* window) = 0;
  // The input pins of an index, without references; S_FALSE (nothing written) for an unknown one.
  virtual HRESULT GetInputPins(LONG index, IPin** video, IPin** audioInput, IPin** videoAlarm,
                               IPin** audioAlarm, IPin** text) = 0;

 protected:
  ~IComposeCommand() = default;
};

template <>
struct InterfaceId<IComposeCommand> {
  static constexpr const IID& value = IID_IComposeCommand;
};
