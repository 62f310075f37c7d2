// ComposerFilter: the composer as the host sees it.
#pragma once

#include <string>

#include "filter/i_compose_command.h"
#include "host/units.h"
#include "platform/com/com_ptr.h"
#include "platform/graph/filter_registry.h"

namespace host {

// The library's file: QXCompose.ax beside the running program, else the registered one. Throws
// GraphError that says where it was looked for.
std::string FindComposerLibrary();

// Makes the filter through the class factory of its library and speaks to it through its command
// interface only. Owned by the wall; belongs to the application's thread.
class ComposerFilter {
 public:
  struct Canvas {
    int windows = 0;
    int width = 0;  // pixels
    int height = 0;
    Ratio aspect{16, 9};
    Ratio frameRate{25, 1};
    Time prerollPeriod = 0;
  };
  // The pins of one input, without references: they live as long as the filter.
  struct Input {
    IPin* video = nullptr;
    IPin* audio = nullptr;
    IPin* videoAlarm = nullptr;
    IPin* audioAlarm = nullptr;
    IPin* text = nullptr;
    IPin* audioOutput = nullptr;
  };

  // Throws std::runtime_error when the library or the object cannot be had. logger outlives it.
  ComposerFilter(const std::string& library, const Canvas& canvas, qorp::log::ILogPerf* logger);

  IBaseFilter* filter() const { return loaded_.filter.Get(); }
  IPin* backgroundPin() const { return Pin(0); }
  IPin* compositionPin() const { return Pin(1); }
  // Indices are given in order from 0.
  Input AddInput(LONG index, IComposeWindow* window);
  // Pins by their position in the filter's enumeration; null when there is none.
  IPin* Pin(ULONG position) const;

 private:
  LoadedFilter loaded_;
  ComPtr<IComposeCommand> command_;
};

}  // namespace host
