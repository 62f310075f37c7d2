// Walking from filter to filter along their pins.
#pragma once

#include <functional>

#include "platform/com/com_ptr.h"
#include "platform/dshow/filters.h"
#include "platform/dshow/pins.h"

// Calls visit with every pin of a filter.
void ForEachPin(IBaseFilter* filter, const std::function<void(IPin*)>& visit);
// The pin at the other end; null when not connected.
ComPtr<IPin> PeerOf(IPin* pin);
bool IsOutput(IPin* pin);
// The filter that a pin belongs to; null for no pin.
ComPtr<IBaseFilter> FilterOf(IPin* pin);
